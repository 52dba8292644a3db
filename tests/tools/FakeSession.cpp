#include "tools/FakeSession.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

#include "core/MonoClock.h"
#include "tools/PeerSocket.h"

namespace {

constexpr std::int32_t kRingBytes = 1024;
constexpr std::size_t kAtATime = 16384;  // so that all sessions move together

FrameBytes FileAnswer(const UploadFileAnswer& answer) {
    std::array<std::uint8_t, kGetHlogAckBytes - kUmBodyOffset> body{};
    StoreLe32(body.data(), answer.dwSize);
    body.back() = answer.byResult;
    return MakeUploadFrame(UM_GET_HLOG_ACK, body.data(), body.size());
}

}  // namespace

FrameBytes MakeHello(std::uint32_t dwVersion) {
    std::array<std::uint8_t, kHelloBytes - kUmBodyOffset> body{};
    StoreLe32(body.data(), dwVersion);
    return MakeUploadFrame(UM_HELLO, body.data(), body.size());
}

CFakeSession::CFakeSession(std::uint16_t wPort, const std::string& strAddress,
                           std::string_view content, const FrameBytes& first)
    : m_Content(content),
      m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      m_Ring(kRingBytes) {
    sockaddr_in own = LoopbackAddress(0);
    inet_pton(AF_INET, strAddress.c_str(), &own.sin_addr);
    const sockaddr_in receiver = LoopbackAddress(wPort);
    if (bind(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof(own)) != 0 ||
        connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&receiver), sizeof(receiver)) !=
            0 ||
        fcntl(m_Socket.Get(), F_SETFL, O_NONBLOCK) != 0) {
        throw std::runtime_error("a session cannot connect");
    }
    Send(first);
}

void CFakeSession::SendSome(const char* pBytes, std::size_t nLen, std::size_t& nDone) {
    const ssize_t nSent = send(m_Socket.Get(), pBytes, nLen, MSG_NOSIGNAL);
    if (nSent < 0 && errno != EAGAIN) {
        m_bEnded = true;
    }
    nDone += nSent > 0 ? static_cast<std::size_t>(nSent) : 0;
}

void CFakeSession::Serve() {
    Receive();
    if (!m_strQueued.empty()) {
        std::size_t nDone = 0;
        SendSome(m_strQueued.data(), m_strQueued.size(), nDone);
        m_strQueued.erase(0, nDone);
    }
    const std::size_t nEnd = std::min(m_nAllowed, m_Content.size());
    if (m_strQueued.empty() && m_nFile < nEnd) {
        SendSome(m_Content.data() + m_nFile, std::min(kAtATime, nEnd - m_nFile), m_nFile);
    }
}

void CFakeSession::Receive() {
    std::array<std::uint8_t, kRingBytes> piece{};
    const ssize_t nCame =
        recv(m_Socket.Get(), piece.data(), static_cast<std::size_t>(m_Ring.GetFree()), 0);
    m_bEnded = m_bEnded || nCame == 0 || (nCame < 0 && errno != EAGAIN);
    static_cast<void>(m_Ring.Write(piece.data(), static_cast<std::int32_t>(nCame)));
    for (std::int32_t nFrame = 0; (nFrame = m_Ring.CheckF1Frame()) > 0;) {
        m_Ring.Skip(m_Ring.Peek(piece.data(), nFrame));
        Answer(OpenUploadFrame({piece.data(), piece.data() + nFrame}));
    }
}

void CFakeSession::Answer(const UploadMessage& message) {
    m_Codes.push_back(message.wCode);
    if (message.wCode == UM_HELLO_ACK) {
        const std::array<std::uint8_t, kInfoBytes - kUmBodyOffset> body{};
        Send(MakeUploadFrame(UM_INFO, body.data(), body.size()));
    } else if (message.wCode == UM_GET_HLOG) {
        m_Starts.push_back(LoadLe32(&message.payload.at(kGetHlogStartOffset)));
        const bool bFound = m_Starts.back() < m_Content.size();
        Send(FileAnswer({static_cast<std::uint32_t>(m_Content.size()),
                         bFound ? kGetHlogFound : kGetHlogBeyondEnd}));
        m_nFile = bFound ? m_Starts.back() : std::string::npos;
    }
}

bool CFakeSession::ServeUntil(std::deque<CFakeSession>& sessions,
                              const std::function<bool()>& condition, int nLimitMs) {
    const std::int64_t nEndMs = MonotonicMs() + nLimitMs;
    while (!condition()) {
        if (MonotonicMs() > nEndMs) {
            return false;
        }
        std::vector<pollfd> waiting;
        for (const CFakeSession& session : sessions) {
            const bool bSends =
                !session.m_strQueued.empty() ||
                session.m_nFile < std::min(session.m_nAllowed, session.m_Content.size());
            waiting.push_back({session.m_bEnded ? -1 : session.m_Socket.Get(),
                               static_cast<short>(POLLIN | (bSends ? POLLOUT : 0)), 0});
        }
        poll(waiting.data(), waiting.size(), 10);
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            if (waiting[i].revents != 0) {
                sessions[i].Serve();
            }
        }
    }
    return true;
}
