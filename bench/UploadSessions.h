// Upload sessions of a service, and who reads what it forwards to them.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "peers/Agent.h"
#include "peers/Receiver.h"
#include "peers/Service.h"

using Sessions = std::vector<CReceiverSession>;

// The next session of a receiver. Throws std::runtime_error when nobody connects.
CReceiverSession AcceptSession(CReceiver& receiver);

// Sessions of service that are ready to serve; those before must be destroyed. agent: the one that
// the service is registered with. Throws std::runtime_error when there are none to be had.
Sessions StartSessions(const CService& service, CAgent& agent, CReceiver& receiver, int nSessions);

// Has all of them forward every record.
void SubscribeToAll(Sessions& sessions);

// Bytes of a forwarded record with a text of nText bytes.
std::size_t ForwardedBytes(std::size_t nText);

// Reads what comes on all sessions, until it is destroyed. It looks up only now and then and so
// costs little: it shares a processor with the sender of the records.
class CReaders {
public:
    explicit CReaders(Sessions& sessions) : m_Thread([this, &sessions] { Read(sessions); }) {}
    ~CReaders() {
        m_bStop = true;
        m_Thread.join();
    }
    CReaders(const CReaders&) = delete;
    CReaders& operator=(const CReaders&) = delete;

    std::uint64_t Bytes() const { return m_nBytes; }  // read so far, by all

private:
    void Read(Sessions& sessions);

    std::atomic<bool> m_bStop{false};
    std::atomic<std::uint64_t> m_nBytes{0};
    std::thread m_Thread;
};
