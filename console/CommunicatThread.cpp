#include "console/CommunicatThread.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "console/IdleTime.h"
#include "core/ConfigKeys.h"
#include "core/Progress.h"
#include "core/RingIo.h"
#include "core/Trace.h"
#include "support/MonoClock.h"
#include "support/Socket.h"
#include "support/UniqueFd.h"

CCommunicatThread* g_pCommunicatThread = nullptr;

namespace {

constexpr std::int32_t kSendRingBytes = 102400;
constexpr std::int32_t kRecvRingBytes = 512;  // no line is longer
constexpr int kBacklog = 1;
constexpr std::int32_t kLoginSeconds = 20;
constexpr std::int64_t kListenRestMs = 100;

// Reads of one turn: a client that never stops typing must not keep the loop from seeing Stop.
constexpr int kMaxReadsPerTurn = 64;

bool LacksResources(int nError) {
    return nError == EMFILE || nError == ENFILE || nError == ENOBUFS || nError == ENOMEM;
}

}  // namespace

CCommunicatThread::CCommunicatThread()
    : m_pSendBuff(std::make_unique<CBuff>(kSendRingBytes)),
      m_pRecvBuff(std::make_unique<CBuff>(kRecvRingBytes)) {
    FD_ZERO(&m_fdRead);
    FD_ZERO(&m_fdWrite);
}

CCommunicatThread::~CCommunicatThread() {
    CloseAll();
    if (m_nUdpSocket >= 0) {
        close(m_nUdpSocket);
    }
}

void CCommunicatThread::AddLogClient(const LogClientEntry& entry) {
    m_listLogc.push_back(entry);
}

int CCommunicatThread::Init(int nPort) {
    Progress("CommunicatThread Init()\n");
    m_nListenPort = nPort > 0 ? nPort : kDefaultConsolePort;
    if (!BindListener()) {
        return -1;
    }
    if (listen(m_nListenSocket, kBacklog) != 0) {
        Trace("CommunicatThread Init listen error.\n");
        return -1;
    }
    FD_SET(m_nListenSocket, &m_fdRead);
    m_nUdpSocket = MakeSocket(SOCK_DGRAM);
    if (m_nUdpSocket < 0) {
        Trace("CommunicatThread Init Udp socket error.\n");
        return -1;
    }
    m_bRunning = true;
    return 0;
}

bool CCommunicatThread::BindListener() {
    CUniqueFd listener(MakeSocket(SOCK_STREAM));
    if (!listener.IsOpen()) {
        Trace("CommunicatThread Init socket error.\n", "Init");
        return false;
    }
    const int nFailedStep = SetNonBlocking(listener.Get());
    if (nFailedStep != 0) {
        Trace(nFailedStep == 1 ? "CommunicatThread Init fcntl 1 error.\n"
                               : "CommunicatThread Init fcntl 2 error.\n",
              "Init");
        return false;
    }
    m_nListenSocket = listener.Release();
    if (!BindToPort(m_nListenSocket, static_cast<std::uint16_t>(m_nListenPort))) {
        Trace("CommunicatThread Init bind error.\n", "Init");
        return false;
    }
    return true;
}

void CCommunicatThread::Stop() {
    m_bRunning.store(false);
    // A pipe too full for the message wakes the thread as well.
    PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_QUIT);
}

int CCommunicatThread::ThreadRun() {
    Progress("ThreadRun() ...\n");
    FD_SET(g_nMsgPipe[0], &m_fdRead);
    while (m_bRunning) {
        Turn();
    }
    Progress("************************CommunicatThread exit.\n");
    return 0;
}

void CCommunicatThread::Turn() {
    CheckTimeout();
    WatchListenerAgain();
    fd_set fdRead = m_fdRead;
    fd_set fdWrite = m_fdWrite;
    const int nHighest = std::max({m_nListenSocket, m_nConnSocket, g_nMsgPipe[0]});
    const int nReady = WaitForEvents(nHighest, &fdRead, &fdWrite, MsToNextDue());
    if (nReady > 0) {
        m_nRelayed = 0;
        Dispatch(fdRead, fdWrite);
        RestInStream();
    } else if (nReady < 0) {
        Trace("CommunicatThread ThreadRun select error.\n", "ThreadRun");
        CloseAll();
    }
}

// A stream of records is taken in batches: to wake up for each of them would cost more than to show
// it, and the circle buffer would be full before this thread had its turn again.
void CCommunicatThread::RestInStream() const {
    constexpr int kBatchMicroseconds = 200;
    if (m_nRelayed > 1) {
        Rest(kBatchMicroseconds);
    }
}

// When something is due without anything coming in; negative: never. The wall clock, by which the
// time-outs of a session count, may be set at any moment, so a session looks at it each second.
int CCommunicatThread::MsToNextDue() const {
    constexpr std::int64_t kClockLookMs = 1000;
    std::int64_t nMs = m_nStatus == WAIT_CONNECT ? -1 : kClockLookMs;
    if (m_nListenRestEnd != 0 && m_nListenSocket > 0) {
        const std::int64_t nRestMs = std::max<std::int64_t>(m_nListenRestEnd - MonotonicMs(), 0);
        nMs = nMs < 0 ? nRestMs : std::min(nMs, nRestMs);
    }
    return static_cast<int>(nMs);
}

void CCommunicatThread::Dispatch(const fd_set& fdRead, const fd_set& fdWrite) {
    // A handler may close the connection and a later one open another under the same number; what
    // select said holds for the first of them only.
    const std::uint32_t nServed = m_nConnections;
    const auto IsReady = [&](const fd_set& fdReady) {
        return m_nConnSocket > 0 && m_nConnections == nServed && FD_ISSET(m_nConnSocket, &fdReady);
    };
    if (FD_ISSET(g_nMsgPipe[0], &fdRead)) {
        OnPipeMsg();
    }
    if (m_nListenSocket > 0 && FD_ISSET(m_nListenSocket, &fdRead)) {
        Progress("telnet connect to me...Will OnAccept()...\n");
        OnAccept();
        Progress("OnAccept return ...\n");
    }
    if (IsReady(fdRead)) {
        OnConnectionRead();
    }
    // Lines that were just queued leave now, without another wait for what is nearly always true.
    if (IsReady(fdWrite) || (m_nConnections == nServed && m_nStatus == SENDING_REAL_TIME_LOG &&
                             m_pSendBuff->GetUsed() > 0)) {
        OnConnectionSend();
    }
}

void CCommunicatThread::WatchListenerAgain() {
    if (m_nListenRestEnd != 0 && m_nListenSocket > 0 && MonotonicMs() >= m_nListenRestEnd) {
        m_nListenRestEnd = 0;
        FD_SET(m_nListenSocket, &m_fdRead);
    }
}

int CCommunicatThread::OnAccept() {
    Progress("CommunicatThread OnAccept() \n");
    if (m_nListenSocket < 0) {
        return -1;
    }
    const int nSocket = AcceptClient();
    if (nSocket < 0) {
        Trace("CCommunicatThread OnAccept accept() failed.\n");
        return -1;
    }
    return m_nStatus == WAIT_CONNECT ? ServeClient(nSocket) : RefuseClient(nSocket);
}

// Returns a descriptor that a set can hold, or -1.
int CCommunicatThread::AcceptClient() {
    CUniqueFd client(accept4(m_nListenSocket, nullptr, nullptr, SOCK_CLOEXEC));
    if (!client.IsOpen() && LacksResources(errno)) {
        // The client stays in the queue, so select would report it again and again.
        FD_CLR(m_nListenSocket, &m_fdRead);
        m_nListenRestEnd = MonotonicMs() + kListenRestMs;
    }
    return FitsSelect(client.Get()) ? client.Release() : -1;
}

int CCommunicatThread::RefuseClient(int nSocket) {
    Progress("have telnet client .will close the link.\n");
    // The result is ignored: this client gets no service either way.
    (void)send(nSocket, "you.", 4, MSG_NOSIGNAL | MSG_DONTWAIT);
    CloseConnection(nSocket);
    return 0;
}

int CCommunicatThread::ServeClient(int nSocket) {
    Close();
    m_nConnSocket = nSocket;
    ++m_nConnections;
    const int nOne = 1;  // else a line waits until the client has confirmed the one before
    setsockopt(nSocket, IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    const int nFailedStep = SetNonBlocking(nSocket);
    if (nFailedStep != 0) {
        Close();
        Trace(nFailedStep == 1 ? "CommunicatThread OnAccept fcntl 1 error.\n"
                               : "CommunicatThread OnAccept fcntl 2 error.\n",
              "OnAccept");
        return -1;
    }
    if (DoWelcome() != 0) {
        Close();
        Trace("CCommunicatThread OnAccept DoWelcome() failed.\n", "OnAccept");
        return -1;
    }
    return 0;
}

int CCommunicatThread::OnConnectionRead() {
    if (!IsInSession()) {
        return 0;
    }
    RingIoStep step{RingIoEnd::kMore, 0};
    for (int nRead = 0; nRead < kMaxReadsPerTurn && step.eEnd == RingIoEnd::kMore; ++nRead) {
        step = ReceiveStep(m_nConnSocket, *m_pRecvBuff);
        if (step.eEnd == RingIoEnd::kFailed) {
            Trace("CCommunicatThread OnConnectionRead recv failed. \n");
            return Close();
        }
        if (step.eEnd == RingIoEnd::kClosed) {
            Progress("Connection close by telnet client.\n");
            return Close();
        }
        if (step.nBytes > 0) {
            UpdateActiveTime();
            if (ParseClientSent() != 0) {
                Trace("CCommunicatThread OnConnectionRead ParseClientSent() failed.\n");
                return Close();
            }
        }
    }
    return 0;
}

int CCommunicatThread::OnConnectionSend() {
    if (!IsInSession()) {
        if (m_nConnSocket > 0) {
            FD_CLR(m_nConnSocket, &m_fdWrite);
        }
        return 0;
    }
    const RingIoStep step = SendPending(m_nConnSocket, *m_pSendBuff);
    if (step.eEnd == RingIoEnd::kFailed) {
        Trace("CCommunicatThread OnConnectionSend send() failed.\n");
        Close();
        return -1;
    }
    if (step.nBytes > 0) {
        UpdateActiveTime();
    }
    if (m_pSendBuff->GetUsed() == 0) {
        FD_CLR(m_nConnSocket, &m_fdWrite);
    }
    (void)DoPipeMsgDataArrive();  // its failures concern a record or a log client, not this client
    return 0;
}

int CCommunicatThread::OnPipeMsg() {
    PipeMsg msg{};
    while (m_pipeReader.Next(g_nMsgPipe[0], msg)) {
        if (msg.id == LOG_THREAD_QUIT) {
            Progress("______________CommunicatThread recv LOG_THREAD_QUIT pipe message.\n");
            CloseAll();
            continue;
        }
        if (msg.id == LOG_THREAD_DATA_ARRIVED) {
            Progress("OnPipeMsg() ...Get LOG_THREAD_DATA_ARRIVED message.\n");
            (void)DoPipeMsgDataArrive();  // its failures concern a record or a log client
        }
        return -1;
    }
    return 0;
}

int CCommunicatThread::Close() {
    Progress("Connection Close()...\n");
    if (m_nConnSocket > 0) {
        FD_CLR(m_nConnSocket, &m_fdRead);
        FD_CLR(m_nConnSocket, &m_fdWrite);
        CloseConnection(m_nConnSocket);
        m_nConnSocket = -1;
    }
    m_pSendBuff->Reset();
    m_pRecvBuff->Reset();
    UpdateActiveTime();
    m_nStatus = WAIT_CONNECT;
    return 0;
}

int CCommunicatThread::CloseAll() {
    Close();
    if (m_nListenSocket >= 0) {
        FD_CLR(m_nListenSocket, &m_fdRead);
        close(m_nListenSocket);
        m_nListenSocket = -1;
    }
    m_bRunning = false;
    return 0;
}

int CCommunicatThread::CheckTimeout() {
    if (m_tLastActive < 0 || m_nStatus == WAIT_CONNECT) {
        return 0;
    }
    const std::int64_t tNow = std::time(nullptr);
    const std::int32_t nAllowed = m_nStatus == WAIT_LOGIN ? kLoginSeconds : m_nTimeoutDelay;
    if (IsIdleTooLong(tNow, m_tLastActive, nAllowed)) {
        Progress("current_time=%lld,last_time=%lld,m_nTimeoutDelay = %d\n",
                 static_cast<long long>(tNow), static_cast<long long>(m_tLastActive),
                 m_nTimeoutDelay);
        Progress("Connection timeout ..will Close the connection..\n");
        Close();
    }
    return 0;
}

int CCommunicatThread::UpdateActiveTime() {
    m_tLastActive = std::time(nullptr);
    return 0;
}

int CCommunicatThread::TcpSend(const char* pData, int nLen) {
    if (m_pSendBuff->GetFree() < nLen) {
        Trace("TcpSendBuff have not enough space !\n");
        return -1;
    }
    if (m_pSendBuff->Write(pData, nLen) != nLen) {
        Trace("CCommunicatThread TcpSend failed.\n");
        return -1;
    }
    FD_SET(m_nConnSocket, &m_fdWrite);
    return 0;
}

int CCommunicatThread::TcpSend(const std::string& strText) {
    return TcpSend(strText.data(), static_cast<int>(strText.size()));
}
