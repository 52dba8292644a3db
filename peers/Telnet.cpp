#include "peers/Telnet.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "peers/PeerSocket.h"

CTelnet::CTelnet(std::uint16_t wPort, int nReceiveBuffer)
    : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (nReceiveBuffer > 0) {
        setsockopt(m_Socket.Get(), SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
    }
    const int nOne = 1;  // each Send is a segment of its own
    setsockopt(m_Socket.Get(), IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    const sockaddr_in address = LoopbackAddress(wPort);
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

// Appends what comes next to the bytes received.
const char* CTelnet::Receive() {
    pollfd ready{m_Socket.Get(), POLLIN, 0};
    if (poll(&ready, 1, kPeerLimitMs) != 1) {
        return "<silence>";
    }
    char szPiece[65536];
    const ssize_t nRead = recv(m_Socket.Get(), szPiece, sizeof(szPiece), 0);
    if (nRead <= 0) {
        return nRead == 0 ? "<end>" : "<reset>";
    }
    m_strReceived.erase(0, m_nTaken);
    m_nTaken = 0;
    m_strReceived.append(szPiece, static_cast<std::size_t>(nRead));
    return nullptr;
}

std::string CTelnet::Take(std::size_t nMax) {
    std::string strText = m_strReceived.substr(m_nTaken, nMax);
    m_nTaken += strText.size();
    return strText;
}

std::string CTelnet::Read(std::size_t nLen) {
    while (Ahead() < nLen && Receive() == nullptr) {
    }
    return Take(nLen);
}

std::string CTelnet::ReadUntil(const std::string& strEnd) {
    std::size_t nSearched = 0;  // strEnd does not begin in that many of the bytes ahead
    std::size_t nFound = 0;
    while ((nFound = m_strReceived.find(strEnd, m_nTaken + nSearched)) == std::string::npos) {
        nSearched = Ahead() - std::min(Ahead(), strEnd.size() - 1);
        if (Receive() != nullptr) {
            return Take(std::string::npos);
        }
    }
    return Take(nFound + strEnd.size() - m_nTaken);
}

std::string CTelnet::ReadToEnd() {
    const char* szEnd = nullptr;
    while (szEnd == nullptr) {
        szEnd = Receive();
    }
    return Take(std::string::npos) + szEnd;
}

std::string CTelnet::LogIn() {
    std::string strWelcome = ReadUntil("Password:");
    Send("quietharbor\r\n");
    ReadUntil(",\r\n");
    return strWelcome;
}
