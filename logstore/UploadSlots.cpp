// The upload sessions of the intake: five slots, filled by history requests and emptied by end
// notices (docs/architecture.md, "Life of a history request").
#include <algorithm>
#include <cstring>
#include <new>

#include "core/MsgQueue.h"
#include "core/Progress.h"
#include "link/LinkMsg.h"
#include "logstore/LogRecvThread.h"

namespace {

// A session's subscription has a place for each client and type that WantsRecord is asked about.
static_assert(kSubscribeClients == kClientCount && kSubscribeTypes == kOrdinaryTypeCount);

constexpr std::uint32_t kResultNotStarted = 0;  // of an answer: no session could be started

void AnswerAgent(std::uint32_t nRequestID, const RequestBlock& byRequest, std::uint32_t nResult) {
    const auto answer = MakeUploadAnswer(nRequestID, byRequest, nResult);
    // An answer that cannot be posted is lost, as one is that finds the link down.
    g_MsgQueue.PostMsg(g_nCmdThreadID[1], MSG_MT_CT_SEND, answer.data(),
                       static_cast<std::int32_t>(answer.size()));
}

// True for an end reason that is a failure in the eyes of the agent.
bool IsAnswered(std::uint32_t nReason) {
    return nReason == UPLOAD_END_NO_SOCKET || nReason == UPLOAD_END_NO_CONNECT ||
           nReason == UPLOAD_END_HELLO_REFUSED || nReason == UPLOAD_END_NO_HANDSHAKE;
}

// Takes out of a slot's pipe what was meant for the session before, and out of the queue what that
// refers to.
void EmptyPipe(int nReadEnd) {
    CPipeReader reader;
    PipeMsg msg;
    while (reader.Next(nReadEnd, msg)) {
        if (msg.id == MSG_QUEUE_ARRIVED) {
            g_MsgQueue.FreeMsg(static_cast<std::int32_t>(msg.wParam));
        }
    }
}

}  // namespace

std::size_t MakeUploadCopy(const LogRecord& record, std::uint8_t (&byCopy)[kRecordBytes]) {
    const std::size_t nText = std::min(RecordText(record).size(), kRecordTextBytes - 1);
    std::memcpy(byCopy, &record, kRecordHeadBytes + nText);
    byCopy[kRecordHeadBytes + nText] = 0;
    return kRecordHeadBytes + nText + 1;
}

// wParam: queue handle; lParam: message code.
int CLogRecvThread::OnMsg(std::uint32_t wParam, std::uint32_t lParam) {
    Progress("CLogRecvThread::OnMsg\n");
    std::vector<std::uint8_t> payload;
    const bool bTaken = g_MsgQueue.TakeMsg(static_cast<std::int32_t>(wParam), payload) == 1;
    if (lParam == MSG_UT_MT_QUIT) {
        if (bTaken) {
            OnUploadEnded(payload);
        } else {
            EndLostUploads();
        }
    } else if (lParam == MSG_CT_MT_HLOG && bTaken) {
        OnHlogRequest(payload);
    }
    return 0;
}

void CLogRecvThread::OnUploadEnded(const std::vector<std::uint8_t>& notice) {
    Progress("**********MSG_UT_MT_QUIT1\n");
    if (notice.size() < kQuitSlotOffset + sizeof(std::uint32_t)) {
        return;
    }
    const std::uint32_t nSlot = LoadLe32(&notice[kQuitSlotOffset]);
    if (nSlot >= kUploadSlots) {
        return;
    }
    Progress("**********MSG_UT_MT_QUIT2\n");
    // A notice may be older than the session that has the slot now: EndLostUploads was quicker.
    const auto& pSession = m_pUploadThread[nSlot];
    if (pSession != nullptr && pSession->GetEndReason() >= 0) {
        EndUpload(static_cast<int>(nSlot), notice[kQuitReasonOffset]);
    }
}

// Answers the agent where the session failed, and empties its slot.
void CLogRecvThread::EndUpload(int nSlot, std::uint32_t nReason) {
    Progress("**********MSG_UT_MT_QUIT3\n");
    if (IsAnswered(nReason)) {
        Progress("**********MSG_UT_MT_QUIT4\n");
        const CUploadThread& session = *m_pUploadThread[nSlot];
        AnswerAgent(session.GetRequestID(), session.GetRequest(), nReason);
    }
    StopUploadThread(nSlot);
}

// An end notice was there and the queue's cleaner took it: this thread had stood still for long, on
// a disk that hung. The sessions themselves know that they are over.
void CLogRecvThread::EndLostUploads() {
    for (int nSlot = 0; nSlot < kUploadSlots; ++nSlot) {
        const auto& pSession = m_pUploadThread[nSlot];
        if (pSession != nullptr && pSession->GetEndReason() >= 0) {
            EndUpload(nSlot, static_cast<std::uint32_t>(pSession->GetEndReason()));
        }
    }
}

void CLogRecvThread::OnHlogRequest(const std::vector<std::uint8_t>& request) {
    if (request.size() < kHlogMsgBytes ||
        LoadLe32(&request[kHlogMsgBlockLengthOffset]) != kRequestBlockBytes ||
        LoadLe16(&request[kHlogMsgBlockOffset]) != kRequestBlockCommand) {
        return;
    }
    const std::uint32_t nRequestID = LoadLe32(&request[kHlogMsgIdOffset]);
    RequestBlock byRequest;
    std::copy_n(request.begin() + kHlogMsgBlockOffset, kRequestBlockBytes, byRequest.begin());
    const int nSlot = FindFreeUploadSlot();
    if (nSlot == -1 || !StartUploadThread(nSlot, nRequestID, byRequest)) {
        AnswerAgent(nRequestID, byRequest, kResultNotStarted);
    }
}

// The lowest slot without a session, or -1.
int CLogRecvThread::FindFreeUploadSlot() const {
    const auto* pFree = std::find(std::begin(m_pUploadThread), std::end(m_pUploadThread), nullptr);
    return pFree == std::end(m_pUploadThread)
               ? -1
               : static_cast<int>(pFree - std::begin(m_pUploadThread));
}

// Fills the slot with a running session. False, and the slot is empty, when there can be none.
bool CLogRecvThread::StartUploadThread(int nSlot, std::uint32_t nRequestID,
                                       const RequestBlock& byRequest) {
    EmptyPipe(g_nUploadThreadID[nSlot][0]);
    auto& pSession = m_pUploadThread[nSlot];
    try {
        pSession = std::make_unique<CUploadThread>(nSlot, nRequestID, byRequest);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!pSession->Start()) {
        pSession.reset();
        return false;
    }
    return true;
}

// Ends the session of a slot, 0 to 4, if it has one, and waits until its thread has ended.
void CLogRecvThread::StopUploadThread(int nSlot) {
    auto& pSession = m_pUploadThread[nSlot];
    if (pSession == nullptr) {
        return;
    }
    pSession->Stop();
    pSession->Join();
    pSession.reset();
    EmptyPipe(g_nUploadThreadID[nSlot][0]);  // nobody else gives its queue slots back
}

void CLogRecvThread::StopAllUploadThreads() {
    // All are told first, so that none is waited for that waits for another.
    for (const auto& pSession : m_pUploadThread) {
        if (pSession != nullptr) {
            pSession->Stop();
        }
    }
    for (int nSlot = 0; nSlot < kUploadSlots; ++nSlot) {
        StopUploadThread(nSlot);
    }
}

void CLogRecvThread::PassToUploads(const LogRecord& record) {
    const auto nSessions = std::count_if(std::begin(m_pUploadThread), std::end(m_pUploadThread),
                                         [](const auto& pSession) { return pSession != nullptr; });
    std::uint8_t byCopy[kRecordBytes];
    std::size_t nBytes = 0;
    for (const auto& pSession : m_pUploadThread) {
        if (pSession == nullptr ||
            !pSession->WantsRecord(record.nIndex, record.nType, nSessions == 1)) {
            continue;
        }
        if (nBytes == 0) {
            nBytes = MakeUploadCopy(record, byCopy);
        }
        pSession->PassRecord(byCopy, static_cast<std::int32_t>(nBytes));
    }
}

// Once for all records of a batch.
void CLogRecvThread::TellUploads() {
    for (const auto& pSession : m_pUploadThread) {
        if (pSession != nullptr) {
            pSession->TellRecords();
        }
    }
}
