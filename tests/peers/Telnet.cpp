#include "peers/Telnet.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace {

constexpr int kLimitMs = 10000;

}  // namespace

CTelnet::CTelnet(std::uint16_t wPort, int nReceiveBuffer)
    : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (nReceiveBuffer > 0) {
        setsockopt(m_Socket.Get(), SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
    }
    const int nOne = 1;  // each Send is a segment of its own
    setsockopt(m_Socket.Get(), IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(wPort);
    if (connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        throw std::system_error(errno, std::generic_category(), "telnet: connect");
    }
}

void CTelnet::Send(const std::string& strBytes) {
    if (send(m_Socket.Get(), strBytes.data(), strBytes.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(strBytes.size())) {
        throw std::system_error(errno, std::generic_category(), "telnet: send");
    }
}

// Appends up to nMax bytes, those read ahead first.
const char* CTelnet::ReadPiece(std::string& strTo, std::size_t nMax) {
    if (m_strAhead.empty()) {
        char szPiece[65536];
        pollfd ready{m_Socket.Get(), POLLIN, 0};
        if (poll(&ready, 1, kLimitMs) != 1) {
            return "<silence>";
        }
        const ssize_t nRead = recv(m_Socket.Get(), szPiece, sizeof(szPiece), 0);
        if (nRead <= 0) {
            return nRead == 0 ? "<end>" : "<reset>";
        }
        m_strAhead.assign(szPiece, static_cast<std::size_t>(nRead));
    }
    const std::size_t nTaken = std::min(nMax, m_strAhead.size());
    strTo.append(m_strAhead, 0, nTaken);
    m_strAhead.erase(0, nTaken);
    return nullptr;
}

std::string CTelnet::Read(std::size_t nLen) {
    std::string strText;
    while (strText.size() < nLen && ReadPiece(strText, nLen - strText.size()) == nullptr) {
    }
    return strText;
}

std::string CTelnet::ReadUntil(const std::string& strEnd) {
    std::string strText;
    while (strText.find(strEnd) == std::string::npos) {
        if (ReadPiece(strText, SIZE_MAX) != nullptr) {
            return strText;
        }
    }
    const std::size_t nEnd = strText.find(strEnd) + strEnd.size();
    m_strAhead.insert(0, strText, nEnd);
    return strText.substr(0, nEnd);
}

std::string CTelnet::ReadToEnd() {
    std::string strText;
    const char* szEnd = nullptr;
    while (szEnd == nullptr) {
        szEnd = ReadPiece(strText, SIZE_MAX);
    }
    return strText + szEnd;
}

std::string CTelnet::LogIn() {
    std::string strWelcome = ReadUntil("Password:");
    Send("quietharbor\r\n");
    ReadUntil(",\r\n");
    return strWelcome;
}
