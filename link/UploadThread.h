// One history-upload session. So far it holds what the intake asks of a session, which records its
// receiver subscribed to; the session itself, connecting and serving the receiver, is not built yet
// and nothing starts one.
//
// Threads: the state and the subscription belong to the session's thread; the intake reads them
// without a lock, so a record that races with a change is judged by the old or the new value.
#pragma once

#include <atomic>
#include <cstdint>

constexpr std::int32_t UPLOAD_STATE_IDLE = 0;   // constructed
constexpr std::int32_t UPLOAD_STATE_READY = 5;  // handshake done, subscribed records are forwarded

class CUploadThread {
public:
    static constexpr std::int32_t kClients = 100;       // 0 to 99
    static constexpr std::int32_t kTypesPerClient = 4;  // 0 to 3

    virtual ~CUploadThread() = default;

    // Called by the intake for client 0 to 99 and type 0 to 3: true when the session is ready, its
    // receiver subscribed to such records, and the message queue has room to spare.
    bool WantsRecord(std::int32_t nIndex, std::int32_t nType) const;

private:
    std::atomic<std::int32_t> m_nState{UPLOAD_STATE_IDLE};
    std::atomic<std::uint8_t> m_byRealTimeMask[kClients * kTypesPerClient] = {};  // 1: wanted
};
