#include "link/CmdThread.h"

#include "core/MsgQueue.h"
#include "core/Process.h"
#include "core/ServiceSettings.h"
#include "core/Trace.h"
#include "link/CmdFrame.h"
#include "link/LinkMsg.h"
#include "support/LittleEndian.h"
#include "support/Socket.h"

std::atomic<std::uint32_t> g_nUploadSrcIP{0};
std::atomic<std::uint8_t> g_byNodeCode{0};

namespace {

constexpr std::int32_t kRingBytes = 10240;

// Timer identifiers; each is also the index of its interval.
constexpr std::uint32_t kRetryTimer = 0;
constexpr std::uint32_t kKeepAliveTimer = 1;

// Identifier of the guard timer of a state.
constexpr std::uint32_t GuardOf(std::int32_t nState) {
    return static_cast<std::uint32_t>(nState) + 1;
}
static_assert(GuardOf(LINK_STATE_CONNECTING) == 2 && GuardOf(LINK_STATE_REGISTERING) == 3);

void StartTimer(COwnedTimer& timer, std::uint32_t nTimerID) {
    timer.Start(g_nCmdThreadID[1], nTimerID, g_nCmdTimerInterval[nTimerID]);
}

void SetUploadParameters(const std::uint8_t* pAddress, std::uint8_t byNode) {
    g_nUploadSrcIP = LoadLe32(pAddress);
    g_byNodeCode = byNode;
}

}  // namespace

CCmdThread::CCmdThread()
    : m_Link(kRingBytes, kRingBytes),
      m_Handlers{[this](const PipeMsg& msg) { OnPipeMsg(msg); }, [this] { OnConnected(); },
                 [this] { OnClose(); }, [this] { OnRead(); }, [this] { OnWrite(); }} {
}

int CCmdThread::Run() {
    StartTimer(m_pRetryTimer, kRetryTimer);
    StartTimer(m_pKeepAliveTimer, kKeepAliveTimer);
    Connect();
    while (m_bRun != 0 && Turn()) {
    }
    return 0;
}

int CCmdThread::Stop() {
    m_bRun = 0;  // first: a pipe too full for the message wakes the thread as well
    PostPipeMsg(g_nCmdThreadID[1], LOG_THREAD_QUIT);
    return 0;
}

// Waits once and acts on what came. False at a quit message.
bool CCmdThread::Turn() {
    const TurnEnd eEnd = m_Link.Turn(m_PipeReader, g_nCmdThreadID[0], m_Handlers);
    if (eEnd == TurnEnd::kFailed) {
        Trace("CCmdThread::Run select failed\n", "Run");
        EndProcess(1);
    }
    return eEnd == TurnEnd::kGoOn;
}

void CCmdThread::OnPipeMsg(const PipeMsg& msg) {
    if (m_bRun == 0) {
        return;
    }
    if (msg.id == MSG_QUEUE_ARRIVED) {
        OnQueueMsg(msg.wParam, msg.lParam);
    } else if (msg.id == MSG_TIMER) {
        OnTimer(msg.wParam);
    }
}

void CCmdThread::Connect() {
    if (m_nState != LINK_STATE_CLOSED || !m_Link.CreateSocket()) {
        return;
    }
    const ConnectEnd eEnd = m_Link.Connect(kLoopback, static_cast<std::uint16_t>(g_nSTPort));
    if (eEnd == ConnectEnd::kFailed) {
        m_Link.CloseSocket();
        return;
    }
    EnterGuarded(LINK_STATE_CONNECTING);
    if (eEnd == ConnectEnd::kDone) {
        OnConnected();
    }
}

void CCmdThread::OnConnected() {
    if (m_bRun == 0 || m_nState != LINK_STATE_CONNECTING) {
        return;
    }
    std::uint8_t byValue[sizeof(kRegisterValue)];
    StoreLe32(byValue, kRegisterValue);
    SendFrame(MakeCmdFrame(CMD_REGISTER, byValue, sizeof(byValue)));
    EnterGuarded(LINK_STATE_REGISTERING);
}

void CCmdThread::EnterGuarded(std::int32_t nState) {
    m_nState = nState;
    StartTimer(m_pTimer, GuardOf(nState));
}

// A frame that finds no room is dropped: the agent has not read for long then.
void CCmdThread::SendFrame(const std::vector<std::uint8_t>& frame) {
    static_cast<void>(m_Link.SendFrame(frame));
}

void CCmdThread::OnWrite() {
    if (m_bRun != 0 && !m_Link.Send()) {
        Close();
    }
}

void CCmdThread::OnRead() {
    if (m_bRun == 0) {
        return;
    }
    const ReceiveEnd eEnd = m_Link.Receive(
        &CBuff::CheckFeFrame,
        [this](std::uint8_t* pFrame, std::int32_t nLen) { return HandleFrame(pFrame, nLen); });
    if (eEnd == ReceiveEnd::kClosed) {
        OnClose();
    } else if (eEnd == ReceiveEnd::kRefused) {
        Close();
    }
}

// True when the frame is one that the agent may send in this state.
bool CCmdThread::HandleFrame(const std::uint8_t* pFrame, std::int32_t nLen) {
    const std::uint8_t* const pPayload = pFrame + kCmdHeadBytes;
    const auto nPayload =
        static_cast<std::uint32_t>(nLen) - static_cast<std::uint32_t>(kCmdHeadBytes);
    switch (pFrame[kCmdCommandOffset]) {
        case CMD_REGISTER_ACK:
            return OnRegisterAck(pPayload, nPayload);
        case CMD_PARAMETERS:
            return OnParameters(pPayload, nPayload);
        case CMD_HLOG_REQUEST:
            return OnHlogRequest(pPayload, nPayload);
        default:
            return false;
    }
}

bool CCmdThread::OnRegisterAck(const std::uint8_t* pPayload, std::uint32_t nLen) {
    if (m_nState != LINK_STATE_REGISTERING || nLen != kRegisterAckBytes ||
        LoadLe32(pPayload) != kRegisterAckValue) {
        return false;
    }
    SetUploadParameters(pPayload + kRegisterAckAddressOffset, pPayload[kRegisterAckNodeOffset]);
    m_pTimer.Stop();
    m_nState = LINK_STATE_ESTABLISHED;
    return true;
}

bool CCmdThread::OnParameters(const std::uint8_t* pPayload, std::uint32_t nLen) const {
    if (m_nState != LINK_STATE_ESTABLISHED || nLen != kParametersBytes) {
        return false;
    }
    SetUploadParameters(pPayload + kParametersAddressOffset, pPayload[kParametersNodeOffset]);
    return true;
}

bool CCmdThread::OnHlogRequest(const std::uint8_t* pPayload, std::uint32_t nLen) const {
    if (m_nState != LINK_STATE_ESTABLISHED || nLen < kHlogBlockOffset ||
        LoadLe32(pPayload + kHlogBlockLengthOffset) != nLen - kHlogBlockOffset) {
        return false;
    }
    const std::vector<std::uint8_t> msg = MakeHlogMsg(pPayload, nLen);
    // The frame was in order, so the link stays up when the intake cannot be told.
    g_MsgQueue.PostMsg(g_nLogRecvThreadID[1], MSG_CT_MT_HLOG, msg.data(),
                       static_cast<std::int32_t>(msg.size()));
    return true;
}

// An answer that comes while the link is not established is lost.
void CCmdThread::OnQueueMsg(std::uint32_t wParam, std::uint32_t lParam) {
    std::vector<std::uint8_t> msg;
    if (g_MsgQueue.TakeMsg(static_cast<std::int32_t>(wParam), msg) != 1 ||
        lParam != MSG_MT_CT_SEND || m_nState != LINK_STATE_ESTABLISHED ||
        msg.size() < kSendMsgPayloadOffset) {
        return;
    }
    const std::uint32_t nPayload = LoadLe32(&msg[kSendMsgLengthOffset]);
    if (nPayload <= msg.size() - kSendMsgPayloadOffset) {
        SendFrame(MakeCmdFrame(CMD_ANSWER, msg.data() + kSendMsgPayloadOffset, nPayload));
    }
}

void CCmdThread::OnTimer(std::uint32_t nTimerID) {
    if (nTimerID == kRetryTimer) {
        Connect();
    } else if (nTimerID == kKeepAliveTimer) {
        SendKeepAlive();
    } else if (m_pTimer.Is(nTimerID)) {
        Close();
    }
}

void CCmdThread::SendKeepAlive() {
    if (m_nState == LINK_STATE_ESTABLISHED && m_Link.SendBuff().GetUsed() == 0) {
        SendFrame(MakeCmdFrame(CMD_KEEP_ALIVE));
    }
}

void CCmdThread::OnClose() {
    if (m_bRun != 0) {
        Close();
    }
}

void CCmdThread::Close() {
    m_pTimer.Stop();
    m_Link.CloseSocket();
    m_nState = LINK_STATE_CLOSED;
}
