// The way of the records to the service, and the account of them.
//
// A datagram to a port that nobody has comes back as an error after the send that took it. The
// socket keeps a queue of such errors, one for each datagram, so that each counts once, however
// many threads send. The system then fails the next send without looking at its datagram; that one
// is sent again.
//
// Threads: Send and GetCounts from any.
#pragma once

#include <atomic>
#include <cstdint>

#include "logstore/LogRecord.h"

namespace tarvik {

class CRecordSocket {
public:
    CRecordSocket() = default;
    ~CRecordSocket();
    CRecordSocket(const CRecordSocket&) = delete;
    CRecordSocket& operator=(const CRecordSocket&) = delete;

    // Once. Aims at wServicePort of 127.0.0.1. 0, or a negative errno.
    [[nodiscard]] int Open(std::uint16_t wServicePort);

    // Hands the record to the system, without waiting. 0; else a negative errno, and it is counted
    // as lost.
    [[nodiscard]] int Send(const LogRecord& record);

    // Counts nRecords that never became records to send.
    void CountLost(std::uint64_t nRecords);

    // Records handed over and not come back, and all others.
    void GetCounts(std::uint64_t& nSent, std::uint64_t& nLost);

private:
    [[nodiscard]] int Connect(std::uint16_t wServicePort);
    [[nodiscard]] bool HasPort(std::uint16_t wPort) const;
    [[nodiscard]] int Deliver(const LogRecord& record);
    std::uint64_t CountRefused();

    static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
    int m_nSocket = -1;
    std::atomic<std::uint64_t> m_nTried = 0;  // never less than m_nLost
    std::atomic<std::uint64_t> m_nLost = 0;
};

}  // namespace tarvik
