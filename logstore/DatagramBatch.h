// Datagrams taken from the intake's socket with one call, in the order in which they came.
//
// Threads: an object belongs to the intake's.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>

#include "logstore/LogRecord.h"

class CDatagramBatch {
public:
    static constexpr std::size_t kMost = kMostAheadOfHeader;

    CDatagramBatch();
    CDatagramBatch(const CDatagramBatch&) = delete;
    CDatagramBatch& operator=(const CDatagramBatch&) = delete;

    // Takes what waits, without waiting. False, with errno, when receiving failed; then, and when
    // nothing was there, the batch is empty.
    [[nodiscard]] bool Receive(int nSocket);

    std::size_t Count() const { return m_nCount; }
    bool IsFull() const { return m_nCount == kMost; }  // more may wait

    // Whether datagram i has the length of a record; a longer one counts as its first 300 bytes.
    bool IsRecord(std::size_t i) const { return m_Messages[i].msg_len == kRecordBytes; }

    // The bytes of datagram i. They lie one after the other.
    const LogRecord& At(std::size_t i) const { return m_Records[i]; }

private:
    std::array<LogRecord, kMost> m_Records{};
    std::array<iovec, kMost> m_Buffers{};
    std::array<mmsghdr, kMost> m_Messages{};
    std::size_t m_nCount = 0;
};
