#include "link/UploadThread.h"

#include <utility>

#include "core/MsgQueue.h"
#include "core/Process.h"
#include "core/Progress.h"
#include "core/ServiceSettings.h"
#include "core/Trace.h"
#include "link/CmdThread.h"
#include "logstore/LogRecord.h"
#include "support/Socket.h"

namespace {

constexpr std::int32_t kSendRingBytes = 204800;
constexpr std::int32_t kRecvRingBytes = 1024;

constexpr std::int32_t kSlotsToSpare = 100;  // queue slots that records leave free
constexpr int kRecordBatchMs = 4;
constexpr int kNoticeRetryMicroseconds = 100000;

// Identifier of the guard timer of a state.
constexpr std::uint32_t GuardOf(std::int32_t nState) {
    return static_cast<std::uint32_t>(nState) + 2;
}
static_assert(GuardOf(UPLOAD_STATE_CONNECTING) == 4 && GuardOf(UPLOAD_STATE_HELLO) == 5 &&
              GuardOf(UPLOAD_STATE_INFO) == 6);

constexpr bool IsTalking(std::int32_t nState) {
    return nState >= UPLOAD_STATE_HELLO && nState <= UPLOAD_STATE_SENDING;
}

void* SessionBody(void* pSession) {
    static_cast<CUploadThread*>(pSession)->Run();
    return nullptr;
}

}  // namespace

CUploadThread::CUploadThread(std::int32_t nSlot, std::uint32_t nRequestID,
                             const RequestBlock& byRequest)
    : m_nSlot(nSlot),
      m_nRequestID(nRequestID),
      m_byRequest(byRequest),
      m_Link(kSendRingBytes, kRecvRingBytes),
      m_Handlers{[this](const PipeMsg& msg) { OnPipeMsg(msg); }, [this] { OnConnected(); },
                 [this] { OnClose(); }, [this] { OnRead(); }, [this] { OnWrite(); }} {
}

CUploadThread::~CUploadThread() {
    CloseFile();
}

bool CUploadThread::Start() {
    const std::string strName = "logd.upload" + std::to_string(m_nSlot);
    return StartThread(m_hThread, strName.c_str(), SessionBody, this) == 0;
}

void CUploadThread::Stop() {
    m_bStop = 1;  // first: a pipe too full for the message wakes the thread as well
    PostPipeMsg(g_nUploadThreadID[m_nSlot][1], LOG_THREAD_QUIT);
}

void CUploadThread::Join() const {
    pthread_join(m_hThread, nullptr);
}

int CUploadThread::Run() {
    if (!Connect()) {
        return 0;
    }
    while (Turn()) {
    }
    Progress("++++++++++++++++++*********CUploadThread::exit\n");
    return 0;
}

// Waits once and acts on what came. False when the run is over.
bool CUploadThread::Turn() {
    if (m_bStop != 0 || !m_Link.IsOpen()) {
        return false;
    }
    const TurnEnd eEnd = m_Link.Turn(m_PipeReader, g_nUploadThreadID[m_nSlot][0], m_Handlers);
    if (eEnd == TurnEnd::kFailed) {
        Trace("CUploadThread::Run:select failed\n", "Run");
        EndProcess(1);
    }
    return eEnd == TurnEnd::kGoOn;
}

void CUploadThread::OnPipeMsg(const PipeMsg& msg) {
    if (msg.id == MSG_QUEUE_ARRIVED) {
        OnQueueMsg(msg.wParam, msg.lParam);
    } else if (msg.id == MSG_TIMER) {
        OnTimer(msg.wParam);
    }
}

// Begins to connect. False when the session is over already.
bool CUploadThread::Connect() {
    const std::uint32_t dwSource = g_nUploadSrcIP;
    if (!m_Link.CreateSocket() || (dwSource != 0 && !m_Link.BindToHost(dwSource))) {
        m_Link.CloseSocket();
        SendQuit(UPLOAD_END_NO_SOCKET);
        return false;
    }
    const ConnectEnd eEnd = m_Link.Connect(LoadLe32(&m_byRequest[kBlockAddressOffset]),
                                           LoadLe16(&m_byRequest[kBlockPortOffset]));
    if (eEnd == ConnectEnd::kFailed) {
        m_Link.CloseSocket();
        SendQuit(UPLOAD_END_NO_CONNECT);
        return false;
    }
    EnterGuarded(UPLOAD_STATE_CONNECTING);
    if (eEnd == ConnectEnd::kDone) {
        OnConnected();
    }
    return true;
}

void CUploadThread::OnConnected() {
    std::uint8_t byVersion[sizeof(kProtocolVersion)];
    StoreLe32(byVersion, kProtocolVersion);
    (void)SendFrame(MakeUploadFrame(UM_HELLO, byVersion, sizeof(byVersion)));
    EnterGuarded(UPLOAD_STATE_HELLO);
}

void CUploadThread::EnterGuarded(std::int32_t nState) {
    m_nState = nState;
    m_pTimer.Start(g_nUploadThreadID[m_nSlot][1], GuardOf(nState),
                   g_nUploadTimerInterval[nState - UPLOAD_STATE_CONNECTING]);
}

// False when the ring has no room: the receiver asks much and reads nothing then, and misses an
// answer.
bool CUploadThread::SendFrame(const std::vector<std::uint8_t>& frame) {
    return m_Link.SendFrame(frame);
}

void CUploadThread::OnRead() {
    if (!IsTalking(m_nState)) {
        return;
    }
    const ReceiveEnd eEnd = m_Link.Receive(
        &CBuff::CheckF1Frame,
        [this](std::uint8_t* pFrame, std::int32_t nLen) { return HandleFrame(pFrame, nLen); });
    if (eEnd == ReceiveEnd::kClosed) {
        OnClose();
    } else if (eEnd == ReceiveEnd::kRefused) {
        Release();
    }
}

void CUploadThread::OnWrite() {
    if (!IsTalking(m_nState)) {
        return;
    }
    m_bRingFull = false;
    const bool bSent =
        m_Link.Send([this] { return m_nState != UPLOAD_STATE_SENDING || ReadFileData(); });
    if (!bSent) {
        Release();
    } else if (std::exchange(m_bRecordQueued, false)) {
        // Records that come in a stream are taken in batches: sessions that all wake up for each of
        // them would take the processor from the intake, which would lose records then. What the
        // receiver asks for meanwhile is answered at once.
        m_Link.RestUntilReadable(kRecordBatchMs);
    }
}

// True when the frame is intact and its message was accepted. A session that is told to stop takes
// no more of them: a message may cost much, and many may wait.
bool CUploadThread::HandleFrame(std::uint8_t* pFrame, std::int32_t nLen) {
    std::uint8_t* const pPayload = pFrame + kUmFrameHeadBytes;
    const std::size_t nPayload = static_cast<std::size_t>(nLen) - kUmFrameHeadBytes;
    return m_bStop == 0 && OpenUploadPayload(pPayload, nPayload) && OnMessage(pPayload, nPayload);
}

void CUploadThread::OnTimer(std::uint32_t nTimerID) {
    if (m_pTimer.Is(nTimerID)) {
        Release();
    }
}

void CUploadThread::OnQueueMsg(std::uint32_t wParam, std::uint32_t lParam) {
    if (lParam == MSG_MT_UT_RTLOG) {
        --m_nPending;
    }
    std::vector<std::uint8_t> record;
    if (g_MsgQueue.TakeMsg(static_cast<std::int32_t>(wParam), record) == 1 &&
        lParam == MSG_MT_UT_RTLOG) {
        ForwardRecord(record);
    }
}

// A record that comes in another state, or finds no room, is dropped.
void CUploadThread::ForwardRecord(const std::vector<std::uint8_t>& record) {
    Progress("MSG_MT_UT_RTLOG1\n");
    if (m_nState != UPLOAD_STATE_READY || record.size() <= kRecordHeadBytes) {
        return;
    }
    Progress("MSG_MT_UT_RTLOG2\n");
    const std::size_t nFrame = kUmFrameHeadBytes + kUmBodyOffset + record.size();
    if (m_Link.SendBuff().GetFree() - static_cast<std::int32_t>(nFrame) <= kRingReserve) {
        m_bRingFull = true;
        return;
    }
    m_bRecordQueued = true;
    Progress("MSG_MT_UT_RTLOG:%.*s\n", static_cast<int>(record.size() - kRecordHeadBytes),
             reinterpret_cast<const char*>(record.data()) + kRecordHeadBytes);
    (void)SendFrame(MakeUploadFrame(UM_RTLOG, record.data(), record.size()));
}

void CUploadThread::OnClose() {
    Progress("CUploadThread::OnClose\n");
    Release();
}

// Ends the session, for the reason that its state tells.
void CUploadThread::Release() {
    const std::int32_t nReason = ReasonOfEnd();
    m_pTimer.Stop();
    m_Link.CloseSocket();
    CloseFile();
    if (nReason >= 0) {
        SendQuit(static_cast<std::uint8_t>(nReason));
    }
}

// The end reason, by the present state; -1 when there is nothing to end.
std::int32_t CUploadThread::ReasonOfEnd() const {
    switch (m_nState.load()) {
        case UPLOAD_STATE_CONNECTING:
            return UPLOAD_END_NO_CONNECT;
        case UPLOAD_STATE_HELLO:
        case UPLOAD_STATE_INFO:
            return m_nResult != -1 ? m_nResult : UPLOAD_END_NO_HANDSHAKE;
        case UPLOAD_STATE_READY:
        case UPLOAD_STATE_SENDING:
            return UPLOAD_END_SERVED;
        default:
            return -1;
    }
}

// Tells the intake, and does not give up before it is told or has ended: the slot would stay taken
// for good.
void CUploadThread::SendQuit(std::uint8_t byReason) {
    std::uint8_t byNotice[kQuitMsgBytes] = {};
    byNotice[kQuitReasonOffset] = byReason;
    StoreLe32(&byNotice[kQuitSlotOffset], static_cast<std::uint32_t>(m_nSlot));
    m_nEndReason = byReason;
    m_nState = UPLOAD_STATE_ENDED;
    while (m_bStop == 0 && g_MsgQueue.PostMsg(g_nLogRecvThreadID[1], MSG_UT_MT_QUIT, byNotice,
                                              sizeof(byNotice)) != 1) {
        Rest(kNoticeRetryMicroseconds);
    }
}

// Beside others, a session may hold as many queue slots as are free, so one that does not take its
// records leaves the others theirs. The management side always has its own.
bool CUploadThread::WantsRecord(std::int32_t nIndex, std::int32_t nType, bool bAlone) const {
    constexpr auto kTypes = static_cast<std::int32_t>(kSubscribeTypes);
    if (m_nState != UPLOAD_STATE_READY || m_byRealTimeMask[nIndex * kTypes + nType] != 1 ||
        m_bRingFull) {
        return false;
    }
    const std::int32_t nFree = g_MsgQueue.GetSmallFree();
    return nFree > kSlotsToSpare && (bAlone || m_nPending < nFree);
}

void CUploadThread::PassRecord(const std::uint8_t* pRecord, std::int32_t nLen) {
    const std::int32_t nHandle = g_MsgQueue.PutMsg(MSG_MT_UT_RTLOG, pRecord, nLen);
    if (nHandle == 0) {
        return;
    }
    ++m_nPending;
    m_Untold[m_nUntold++] = {MSG_QUEUE_ARRIVED, static_cast<std::uint32_t>(nHandle),
                             MSG_MT_UT_RTLOG};
    if (m_nUntold == m_Untold.size()) {
        TellRecords();
    }
}

void CUploadThread::TellRecords() {
    if (m_nUntold > 0 && !PostPipeMsgs(g_nUploadThreadID[m_nSlot][1], m_Untold.data(), m_nUntold)) {
        for (std::size_t i = 0; i < m_nUntold; ++i) {
            g_MsgQueue.FreeMsg(static_cast<std::int32_t>(m_Untold[i].wParam));
        }
        m_nPending -= static_cast<std::int32_t>(m_nUntold);
    }
    m_nUntold = 0;
}
