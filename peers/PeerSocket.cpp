#include "peers/PeerSocket.h"

#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "core/RingIo.h"
#include "support/MonoClock.h"
#include "support/Socket.h"

namespace {

constexpr int kBacklog = 16;
constexpr std::size_t kPieceBytes = 4096;

// More than a piece and the start of a frame.
constexpr std::int32_t kAheadBytes = CPeerSocket::kUnreadBytes;

// poll on one descriptor, whatever signals come. False when the deadline has passed.
bool Poll(int nDescriptor, short nEvents, const CDeadline& deadline) {
    pollfd waiting{nDescriptor, nEvents, 0};
    int nReady = 0;
    do {
        nReady = poll(&waiting, 1, deadline.LeftMs());
    } while (nReady < 0 && errno == EINTR);
    return nReady > 0;
}

void SetOption(int nSocket, int nLevel, int nOption, int nValue) {
    // Each option only makes the peer more exact; without it the peer still works.
    static_cast<void>(setsockopt(nSocket, nLevel, nOption, &nValue, sizeof(nValue)));
}

[[noreturn]] void Fail(int nErrno, const std::string& strWhat) {
    throw std::system_error(nErrno, std::generic_category(), strWhat);
}

}  // namespace

const char* PeerEndText(PeerEnd eEnd) {
    switch (eEnd) {
        case PeerEnd::kNone:
            return "nothing wrong";
        case PeerEnd::kClosed:
            return "closed by the service";
        case PeerEnd::kReset:
            return "connection broken";
        case PeerEnd::kSilence:
            return "nothing came in time";
        case PeerEnd::kBadFrame:
            return "bad frame";
    }
    return "unknown";
}

sockaddr_in LoopbackAddress(std::uint16_t wPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

CDeadline::CDeadline(int nLimitMs) : m_nEndMs(MonotonicMs() + nLimitMs) {
}

int CDeadline::LeftMs() const {
    return static_cast<int>(std::max<std::int64_t>(0, m_nEndMs - MonotonicMs()));
}

CPeerSocket::CPeerSocket(CUniqueFd socket)
    : m_pAhead(std::make_unique<CBuff>(kAheadBytes)), m_Socket(std::move(socket)) {
    if (IsOpen()) {
        SetNonBlocking(m_Socket.Get());
        SetOption(m_Socket.Get(), IPPROTO_TCP, TCP_NODELAY, 1);
    }
}

CPeerSocket& CPeerSocket::operator=(CPeerSocket&& other) noexcept {
    if (this != &other) {
        Close();
        m_Socket = std::move(other.m_Socket);
        m_pAhead = std::move(other.m_pAhead);
        m_eEnd = other.m_eEnd;
    }
    return *this;
}

void CPeerSocket::Send(const PeerBytes& bytes, int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    std::size_t nDone = 0;
    while (nDone < bytes.size()) {
        const ssize_t nSent =
            send(m_Socket.Get(), bytes.data() + nDone, bytes.size() - nDone, MSG_NOSIGNAL);
        if (nSent >= 0) {
            nDone += static_cast<std::size_t>(nSent);
        } else if (errno == EAGAIN) {
            if (!Poll(m_Socket.Get(), POLLOUT, deadline)) {
                Fail(ETIMEDOUT, "sending to the service");
            }
        } else if (errno != EINTR) {
            Fail(errno, "sending to the service");
        }
    }
}

void CPeerSocket::SendByteByByte(const PeerBytes& bytes, int nPauseMs) {
    for (const std::uint8_t by : bytes) {
        Send({by});
        std::this_thread::sleep_for(std::chrono::milliseconds(nPauseMs));
    }
}

// The next bytes of the connection itself; 0: m_eEnd tells why.
std::size_t CPeerSocket::ReceiveOnce(void* pTo, std::size_t nMax, const CDeadline& deadline) {
    m_eEnd = PeerEnd::kNone;
    while (IsOpen()) {
        const ssize_t nReceived = recv(m_Socket.Get(), pTo, nMax, 0);
        if (nReceived > 0) {
            return static_cast<std::size_t>(nReceived);
        }
        if (nReceived == 0) {
            m_eEnd = PeerEnd::kClosed;
            return 0;
        }
        if (errno == EAGAIN && !Poll(m_Socket.Get(), POLLIN, deadline)) {
            m_eEnd = PeerEnd::kSilence;
            return 0;
        }
        if (errno != EAGAIN && errno != EINTR) {
            break;
        }
    }
    m_eEnd = PeerEnd::kReset;
    return 0;
}

std::optional<PeerBytes> CPeerSocket::ReceiveFrame(std::int32_t (CBuff::*pCheck)() const,
                                                   int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    std::int32_t nFrame = 0;
    while (IsOpen() && (nFrame = (m_pAhead.get()->*pCheck)()) == 0) {
        std::uint8_t piece[kPieceBytes];
        const std::size_t nReceived = ReceiveOnce(piece, sizeof(piece), deadline);
        if (nReceived == 0) {
            return std::nullopt;
        }
        // It fits: less than a frame is held.
        static_cast<void>(m_pAhead->Write(piece, static_cast<std::int32_t>(nReceived)));
    }
    if (nFrame <= 0) {
        m_eEnd = nFrame < 0 ? PeerEnd::kBadFrame : PeerEnd::kReset;
        return std::nullopt;
    }
    m_eEnd = PeerEnd::kNone;
    PeerBytes frame(static_cast<std::size_t>(nFrame));
    m_pAhead->Skip(m_pAhead->Peek(frame.data(), nFrame));
    return frame;
}

std::size_t CPeerSocket::ReceiveRaw(void* pTo, std::size_t nMax, int nLimitMs) {
    if (IsOpen() && m_pAhead->GetUsed() > 0) {
        m_eEnd = PeerEnd::kNone;
        const std::int32_t nTaken = m_pAhead->Peek(
            pTo, static_cast<std::int32_t>(std::min<std::size_t>(nMax, kAheadBytes)));
        m_pAhead->Skip(nTaken);
        return static_cast<std::size_t>(nTaken);
    }
    return ReceiveOnce(pTo, nMax, CDeadline(nLimitMs));
}

void CPeerSocket::Unread(const PeerBytes& bytes) {
    // It fits: asked for kUnreadBytes, ReceiveRaw has left nothing ahead.
    static_cast<void>(m_pAhead->Write(bytes.data(), static_cast<std::int32_t>(bytes.size())));
}

PeerEnd CPeerSocket::AwaitEnd(int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    std::uint8_t piece[kPieceBytes];
    while (ReceiveRaw(piece, sizeof(piece), deadline.LeftMs()) > 0) {
    }
    return m_eEnd;
}

void CPeerSocket::Close() {
    if (IsOpen()) {
        CloseConnection(m_Socket.Release());
    }
}

void CPeerSocket::Reset() {
    if (IsOpen()) {
        const linger noLinger{1, 0};
        static_cast<void>(
            setsockopt(m_Socket.Get(), SOL_SOCKET, SO_LINGER, &noLinger, sizeof(noLinger)));
        m_Socket.Reset();
    }
}

CPeerListener::CPeerListener(std::uint16_t wPort, int nReceiveBuffer)
    : m_wPort(wPort), m_nReceiveBuffer(nReceiveBuffer) {
    Listen();
}

void CPeerListener::Listen() {
    CUniqueFd listening(MakeSocket(SOCK_STREAM));
    if (!listening.IsOpen()) {
        Fail(errno, "listening");
    }
    SetOption(listening.Get(), SOL_SOCKET, SO_REUSEADDR, 1);
    if (m_nReceiveBuffer > 0) {
        SetOption(listening.Get(), SOL_SOCKET, SO_RCVBUF, m_nReceiveBuffer);
    }
    sockaddr_in address = LoopbackAddress(m_wPort);
    auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
    socklen_t nLen = sizeof(address);
    if (bind(listening.Get(), pAddress, nLen) != 0 || listen(listening.Get(), kBacklog) != 0 ||
        getsockname(listening.Get(), pAddress, &nLen) != 0) {
        Fail(errno, fmt::format("listening on port {}", m_wPort));
    }
    SetNonBlocking(listening.Get());
    m_wPort = ntohs(address.sin_port);
    m_Socket = std::move(listening);
}

CPeerSocket CPeerListener::Accept(int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    for (;;) {
        CUniqueFd accepted(accept4(m_Socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (accepted.IsOpen()) {
            return CPeerSocket(std::move(accepted));
        }
        if (errno == EAGAIN && !Poll(m_Socket.Get(), POLLIN, deadline)) {
            return CPeerSocket();
        }
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) {
            Fail(errno, fmt::format("accepting on port {}", m_wPort));
        }
    }
}
