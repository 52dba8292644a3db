// What every socket and pipe of the service needs: descriptors that no shell child inherits and
// that a select set can hold, the non-blocking flag, and waiting.
//
// Threads: any; each call works on its caller's descriptors.
#pragma once

#include <sys/select.h>

#include <cstddef>
#include <cstdint>

constexpr std::int32_t kHighestPort = 65535;  // of TCP and UDP

// True when a select set can hold nDescriptor. One that is negative or too large must not be put
// into a set and is closed by whoever made it.
bool FitsSelect(int nDescriptor);

// An IPv4 socket of type nType (SOCK_STREAM or SOCK_DGRAM), close-on-exec, or -1 with errno; EMFILE
// when the number is too large for a select set.
int MakeSocket(int nType);

// Binds an IPv4 socket to wPort, host byte order, of every address of the machine. False with errno
// when that fails.
[[nodiscard]] bool BindToPort(int nSocket, std::uint16_t wPort);

// The same for one address of the machine, dwHost; wPort 0: a port that the kernel picks. Both in
// host byte order.
[[nodiscard]] bool BindToAddress(int nSocket, std::uint32_t dwHost, std::uint16_t wPort);

// Connects an IPv4 socket to dwHost and wPort, both in host byte order. False with errno when it is
// not connected yet or cannot be.
[[nodiscard]] bool ConnectSocket(int nSocket, std::uint32_t dwHost, std::uint16_t wPort);

// Sets O_NONBLOCK. 0: done; 1: the flags could not be read; 2: they could not be written.
int SetNonBlocking(int nDescriptor);

// Sends one datagram of nLen bytes to dwHost and wPort, both in host byte order. Returns 0 when all
// of it went out, else what sendto returned (-1 with errno, or a short count).
int SendDatagram(int nSocket, std::uint32_t dwHost, std::uint16_t wPort, const void* pData,
                 std::size_t nLen);

// select on the given sets (pWrite may be null), for at most nLimitMs milliseconds; negative: for
// as long as it takes. nHighest: the largest descriptor in them. Returns what select returns: -1
// with errno, 0 for time-out, else the number ready. A signal counts as time-out.
int WaitForEvents(int nHighest, fd_set* pRead, fd_set* pWrite, int nLimitMs = -1);

// Does nothing for nMicroseconds, 0 to 999999.
void Rest(int nMicroseconds);

// The address 127.0.0.1 in host byte order.
constexpr std::uint32_t kLoopback = 0x7F000001;
