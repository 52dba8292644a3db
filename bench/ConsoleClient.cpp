#include "bench/ConsoleClient.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <ctime>
#include <stdexcept>

namespace {

constexpr std::int64_t kReplyNs = 5'000'000'000;
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kChunkBytes = 65536;

}  // namespace

CConsoleClient::CConsoleClient(std::uint16_t wPort, int nIndex)
    : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        throw std::runtime_error("console: no connection");
    }
    ReadUpTo("Password:");
    Send("quietharbor\r\n");
    ReadUpTo("?\t\thelp\r\n");
    Send(fmt::format("set {} 100\r\n", nIndex));
    ReadUpTo("to quit send log. \r\n");
}

void CConsoleClient::Send(const std::string& strText) const {
    if (send(m_Socket.Get(), strText.data(), strText.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(strText.size())) {
        throw std::runtime_error("console: nothing can be typed");
    }
}

void CConsoleClient::ReadUpTo(std::string_view strEnd) {
    std::size_t nFound = 0;
    while ((nFound = m_strReceived.find(strEnd, m_nTaken)) == std::string::npos) {
        if (!Receive(kReplyNs)) {
            throw std::runtime_error(fmt::format("console: does not say \"{}\"", strEnd));
        }
    }
    m_nTaken = nFound + strEnd.size();
}

// Waits for bytes and appends them. False: none came.
bool CConsoleClient::Receive(std::int64_t nTimeoutNs) {
    const timespec tsWait{static_cast<time_t>(nTimeoutNs / 1'000'000'000),
                          static_cast<decltype(timespec::tv_nsec)>(nTimeoutNs % 1'000'000'000)};
    pollfd waiting{m_Socket.Get(), POLLIN, 0};
    if (ppoll(&waiting, 1, &tsWait, nullptr) < 1) {
        return false;
    }
    m_strReceived.erase(0, m_nTaken);
    m_nTaken = 0;
    char szChunk[kChunkBytes];
    const ssize_t nBytes = recv(m_Socket.Get(), szChunk, sizeof(szChunk), 0);
    if (nBytes <= 0) {
        throw std::runtime_error("console: closed the connection");
    }
    m_strReceived.append(szChunk, static_cast<std::size_t>(nBytes));
    return true;
}

std::optional<std::string_view> CConsoleClient::NextLine(std::int64_t nTimeoutNs) {
    std::size_t nEnd = 0;
    while ((nEnd = m_strReceived.find(kLineEnd, m_nTaken)) == std::string::npos) {
        if (!Receive(nTimeoutNs)) {
            return std::nullopt;
        }
    }
    const std::string_view line = std::string_view(m_strReceived).substr(m_nTaken, nEnd - m_nTaken);
    m_nTaken = nEnd + kLineEnd.size();
    return line;
}
