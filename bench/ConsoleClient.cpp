#include "bench/ConsoleClient.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <ctime>
#include <stdexcept>

namespace {

constexpr const char* kSetReplyEnd = "to quit send log. \r\n";
constexpr std::string_view kLineEnd = "\r\n";
constexpr std::size_t kChunkBytes = 65536;

}  // namespace

CConsoleClient::CConsoleClient(std::uint16_t wPort, int nIndex) : m_Telnet(wPort) {
    m_Telnet.LogIn();
    m_Telnet.Send(fmt::format("set {} 100\r\n", nIndex));
    if (!m_Telnet.ReadUntil(kSetReplyEnd).ends_with(kSetReplyEnd)) {
        throw std::runtime_error("console: does not show the log client");
    }
}

// Waits for bytes and appends them. False: none came.
bool CConsoleClient::Receive(std::int64_t nTimeoutNs) {
    const timespec tsWait{static_cast<time_t>(nTimeoutNs / 1'000'000'000),
                          static_cast<decltype(timespec::tv_nsec)>(nTimeoutNs % 1'000'000'000)};
    pollfd waiting{m_Telnet.Socket(), POLLIN, 0};
    if (ppoll(&waiting, 1, &tsWait, nullptr) < 1) {
        return false;
    }
    m_strReceived.erase(0, m_nTaken);
    m_nTaken = 0;
    char szChunk[kChunkBytes];
    const ssize_t nBytes = recv(m_Telnet.Socket(), szChunk, sizeof(szChunk), 0);
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
