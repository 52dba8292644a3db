#include "bench/UploadSessions.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "bench/Measure.h"
#include "core/ThreadMsg.h"
#include "logstore/LogRecord.h"

namespace {

constexpr std::int64_t kReaderPauseNs = 5'000'000;
constexpr std::size_t kPieceBytes = 65536;  // what a reader takes at once

bool HasNoSession(const CService& service) {
    for (int nSlot = 0; nSlot < kUploadSlots; ++nSlot) {
        if (service.Thread(fmt::format("logd.upload{}", nSlot)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

CReceiverSession AcceptSession(CReceiver& receiver) {
    auto session = receiver.Accept();
    if (!session) {
        throw std::runtime_error("nobody connects to the receiver");
    }
    return std::move(*session);
}

Sessions StartSessions(const CService& service, CAgent& agent, CReceiver& receiver, int nSessions) {
    if (!WaitUntil([&] { return HasNoSession(service); })) {
        throw std::runtime_error("the service does not end its sessions");
    }
    AgentRequest request;
    request.wPort = receiver.Port();
    Sessions sessions;
    for (int i = 0; i < nSessions; ++i) {
        agent.Send(MakeHlogRequest(0, request));
        sessions.push_back(AcceptSession(receiver));
        sessions.back().Handshake();
    }
    return sessions;
}

void SubscribeToAll(Sessions& sessions) {
    SubscriptionTable table;
    table.fill(1);
    for (CReceiverSession& session : sessions) {
        session.Subscribe(table);
    }
}

std::size_t ForwardedBytes(std::size_t nText) {
    return kUmFrameHeadBytes + kUmBodyOffset + kRecordHeadBytes + nText + 1;
}

void CReaders::Read(Sessions& sessions) {
    std::vector<std::uint8_t> piece(kPieceBytes);
    for (; !m_bStop; SleepNs(kReaderPauseNs)) {
        for (CReceiverSession& session : sessions) {
            std::size_t nRead = 0;
            do {
                nRead = session.Connection().ReceiveRaw(piece.data(), kPieceBytes, 0);
                m_nBytes += nRead;
            } while (nRead == kPieceBytes);
        }
    }
}
