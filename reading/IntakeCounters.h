// What can be seen of the intake from outside while it runs: how many records it stored, from the
// header of today's file, and how many the kernel dropped in front of it and lets wait, from
// /proc/net/udp.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct UdpPortCounters {
    std::uint64_t nWaitingBytes = 0;  // memory of the datagrams in the receive buffer
    std::uint64_t nDropped = 0;       // datagrams lost since the socket was opened
};

// Of all sockets of this machine that are bound to an IPv4 UDP port; nothing when there is none.
std::optional<UdpPortCounters> ReadUdpPort(std::uint16_t wPort);

// The same, from a table of the form of /proc/net/udp.
std::optional<UdpPortCounters> ReadUdpTable(const std::string& strPath, std::uint16_t wPort);

// Counts stored records across the change of day.
class CStoredCounter {
public:
    // Records stored since the first call, which returns 0. Throws std::runtime_error when
    // today's file cannot be read.
    std::uint64_t Read();

private:
    std::string m_strPath;       // today's file at the last call
    std::uint64_t m_nGiven = 0;  // records that it had been given then
    std::uint64_t m_nStored = 0;
};
