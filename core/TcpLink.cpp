#include "core/TcpLink.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "core/RingIo.h"
#include "support/Socket.h"

namespace {

// Steps of one turn: neither a peer that never stops sending nor one that takes all it gets keeps
// the thread from its pipe.
constexpr int kMaxReadsPerTurn = 64;
constexpr int kMaxSendsPerTurn = 256;

// A peer that vanished from an idle connection is noticed within two minutes. Without that the
// session would hold its slot for as long as the service runs. Where data is under way the kernel
// gives up by itself, later.
constexpr int kProbeAfterSeconds = 60;
constexpr int kProbeEverySeconds = 10;
constexpr int kProbes = 6;

bool SetOption(int nSocket, int nLevel, int nOption, int nValue = 1) {
    return setsockopt(nSocket, nLevel, nOption, &nValue, sizeof(nValue)) == 0;
}

// Not every kernel lets all of it be set; the link works without.
void ProbeSilentPeer(int nSocket) {
    SetOption(nSocket, SOL_SOCKET, SO_KEEPALIVE);
    SetOption(nSocket, IPPROTO_TCP, TCP_KEEPIDLE, kProbeAfterSeconds);
    SetOption(nSocket, IPPROTO_TCP, TCP_KEEPINTVL, kProbeEverySeconds);
    SetOption(nSocket, IPPROTO_TCP, TCP_KEEPCNT, kProbes);
}

// True when a socket is connected to itself. That happens when nobody listens on a port of the
// machine from which the kernel also takes the local ports of connections: after many tries it
// takes the very one. Such a socket gets no TIME_WAIT, which would keep the port from its owner.
bool IsConnectedToItself(int nSocket) {
    sockaddr_in local{};
    sockaddr_in peer{};
    socklen_t nLocal = sizeof(local);
    socklen_t nPeer = sizeof(peer);
    if (getsockname(nSocket, reinterpret_cast<sockaddr*>(&local), &nLocal) != 0 ||
        getpeername(nSocket, reinterpret_cast<sockaddr*>(&peer), &nPeer) != 0 ||
        local.sin_port != peer.sin_port || local.sin_addr.s_addr != peer.sin_addr.s_addr) {
        return false;
    }
    const linger none{1, 0};
    setsockopt(nSocket, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    return true;
}

}  // namespace

// What a wait found. It holds for the connection that was waited for: a handler may close it, and
// the next one may get its descriptor.
struct CTcpLink::Events {
    bool bPipe = false;
    bool bReadable = false;
    bool bWritable = false;
    std::uint32_t nConnection = 0;
};

CTcpLink::CTcpLink(std::int32_t nSendBytes, std::int32_t nRecvBytes)
    : m_pSendBuff(std::make_unique<CBuff>(nSendBytes)),
      m_pRecvBuff(std::make_unique<CBuff>(nRecvBytes)) {
    FD_ZERO(&m_setRead);
    FD_ZERO(&m_setWrite);
}

CTcpLink::~CTcpLink() {
    CloseSocket();
}

bool CTcpLink::CreateSocket() {
    CloseSocket();
    m_nSocket = MakeSocket(SOCK_STREAM);
    if (m_nSocket == -1) {
        return false;
    }
    ++m_nConnection;
    if (SetNonBlocking(m_nSocket) != 0 || !SetOption(m_nSocket, IPPROTO_TCP, TCP_NODELAY)) {
        CloseSocket();
        return false;
    }
    ProbeSilentPeer(m_nSocket);
    return true;
}

void CTcpLink::CloseSocket() {
    if (m_nSocket != -1) {
        FD_CLR(m_nSocket, &m_setRead);
        FD_CLR(m_nSocket, &m_setWrite);
        CloseConnection(m_nSocket);
        m_nSocket = -1;
    }
    m_bConnecting = false;
    m_pSendBuff->Reset();
    m_pRecvBuff->Reset();
}

bool CTcpLink::BindToHost(std::uint32_t dwHost) {
    SetOption(m_nSocket, SOL_SOCKET, SO_REUSEADDR);  // without it bind may fail, and says so
    return BindToAddress(m_nSocket, dwHost, 0);
}

ConnectEnd CTcpLink::Connect(std::uint32_t dwHost, std::uint16_t wPort) {
    const bool bDone = ConnectSocket(m_nSocket, dwHost, wPort);
    if (bDone ? IsConnectedToItself(m_nSocket) : errno != EINPROGRESS) {
        return ConnectEnd::kFailed;
    }
    FD_SET(m_nSocket, &m_setRead);
    if (!bDone) {
        m_bConnecting = true;
        FD_SET(m_nSocket, &m_setWrite);
    }
    return bDone ? ConnectEnd::kDone : ConnectEnd::kInProgress;
}

TurnEnd CTcpLink::Turn(CPipeReader& reader, int nPipeReadEnd, const Handlers& handlers) {
    Events events;
    if (Wait(nPipeReadEnd, events) == -1) {
        return TurnEnd::kFailed;
    }
    if (events.bPipe && !reader.Dispatch(nPipeReadEnd, handlers.onPipeMsg)) {
        return TurnEnd::kQuit;
    }
    if (events.nConnection == m_nConnection) {
        HandleSocket(events, handlers);
    }
    return TurnEnd::kGoOn;
}

int CTcpLink::Wait(int nPipeReadEnd, Events& events) const {
    fd_set setRead = m_setRead;
    fd_set setWrite = m_setWrite;
    FD_SET(nPipeReadEnd, &setRead);
    const int nReady = WaitForEvents(std::max(m_nSocket, nPipeReadEnd), &setRead, &setWrite);
    if (nReady > 0) {
        events.bPipe = FD_ISSET(nPipeReadEnd, &setRead);
        events.bReadable = m_nSocket != -1 && FD_ISSET(m_nSocket, &setRead);
        events.bWritable = m_nSocket != -1 && FD_ISSET(m_nSocket, &setWrite);
        events.nConnection = m_nConnection;
    }
    return nReady;
}

void CTcpLink::RestUntilReadable(int nMs) const {
    fd_set setRead;
    FD_ZERO(&setRead);
    if (m_nSocket != -1) {
        FD_SET(m_nSocket, &setRead);
        static_cast<void>(WaitForEvents(m_nSocket, &setRead, nullptr, nMs));
    }
}

void CTcpLink::HandleSocket(const Events& events, const Handlers& handlers) {
    if (m_nSocket == -1 || (!events.bReadable && !events.bWritable)) {
        return;
    }
    if (m_bConnecting) {
        const auto& onEnd = FinishConnect() ? handlers.onConnected : handlers.onClosed;
        onEnd();
        return;
    }
    if (events.bReadable) {
        handlers.onReadable();
    }
    if (events.bWritable && m_nSocket != -1 && events.nConnection == m_nConnection) {
        handlers.onWritable();
    }
}

// True when the connection stands.
bool CTcpLink::FinishConnect() {
    int nError = 0;
    socklen_t nLen = sizeof(nError);
    m_bConnecting = false;
    FD_CLR(m_nSocket, &m_setWrite);
    return getsockopt(m_nSocket, SOL_SOCKET, SO_ERROR, &nError, &nLen) == 0 && nError == 0 &&
           !IsConnectedToItself(m_nSocket);
}

bool CTcpLink::SendFrame(const std::vector<std::uint8_t>& frame) {
    if (m_nSocket == -1) {
        return false;
    }
    const auto nLen = static_cast<std::int32_t>(frame.size());
    FD_SET(m_nSocket, &m_setWrite);
    return m_pSendBuff->Write(frame.data(), nLen) == nLen;
}

ReceiveEnd CTcpLink::Receive(FrameCheck pfnCheck, const FrameHandler& onFrame) {
    RingIoStep step{RingIoEnd::kMore, 0};
    for (int nRead = 0; nRead < kMaxReadsPerTurn && step.eEnd == RingIoEnd::kMore; ++nRead) {
        step = ReceiveStep(m_nSocket, *m_pRecvBuff);
        if (step.eEnd == RingIoEnd::kClosed) {
            return ReceiveEnd::kClosed;
        }
        if (step.eEnd == RingIoEnd::kFailed ||
            (step.nBytes > 0 && !ProcessFrames(pfnCheck, onFrame))) {
            return ReceiveEnd::kRefused;
        }
    }
    return ReceiveEnd::kOpen;
}

bool CTcpLink::ProcessFrames(FrameCheck pfnCheck, const FrameHandler& onFrame) {
    std::uint8_t byFrame[kMaxFrameBytes];
    std::int32_t nLen = 0;
    while ((nLen = ((*m_pRecvBuff).*pfnCheck)()) > 0) {
        if (m_pRecvBuff->Peek(byFrame, std::min(nLen, kMaxFrameBytes)) != nLen) {
            return false;
        }
        m_pRecvBuff->Skip(nLen);
        if (!onFrame(byFrame, nLen)) {
            return false;
        }
    }
    return nLen == 0;
}

bool CTcpLink::Send(const std::function<bool()>& onChunk) {
    RingIoStep step{RingIoEnd::kMore, 0};
    for (int nSend = 0; nSend < kMaxSendsPerTurn && step.eEnd == RingIoEnd::kMore; ++nSend) {
        step = SendStep(m_nSocket, *m_pSendBuff);
        if (step.eEnd == RingIoEnd::kFailed ||
            (step.eEnd == RingIoEnd::kMore && onChunk && !onChunk())) {
            return false;
        }
    }
    if (m_pSendBuff->GetUsed() == 0) {
        FD_CLR(m_nSocket, &m_setWrite);
    }
    return true;
}
