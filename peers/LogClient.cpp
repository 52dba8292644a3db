#include "peers/LogClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>
#include <system_error>

#include "peers/PeerSocket.h"

namespace {

CUniqueFd MakeUdp() {
    CUniqueFd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!udp.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "log client: socket");
    }
    return udp;
}

}  // namespace

LogRecord MakeRecord(std::int32_t nIndex, std::int32_t nType, const std::string& strText) {
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    LogRecord record = StampedRecord(nIndex, nType, tmNow);
    strText.copy(record.szText, kRecordTextBytes);
    return record;
}

CLogClient::CLogClient(std::uint16_t wServicePort, std::uint16_t wControlPort)
    : m_Socket(MakeUdp()) {
    const sockaddr_in service = LoopbackAddress(wServicePort);
    if (connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&service), sizeof(service)) !=
        0) {
        throw std::system_error(errno, std::generic_category(), "log client: connect");
    }
    if (wControlPort == 0) {
        return;
    }
    m_Control = MakeUdp();
    const sockaddr_in control = LoopbackAddress(wControlPort);
    if (bind(m_Control.Get(), reinterpret_cast<const sockaddr*>(&control), sizeof(control)) != 0) {
        throw std::system_error(errno, std::generic_category(), "log client: control port");
    }
}

void CLogClient::SendBytes(const void* pData, std::size_t nLen) {
    // The first send after the service's port was found closed reports that; the next one goes out.
    for (int nTry = 0; nTry < 2; ++nTry) {
        const ssize_t nSent = send(m_Socket.Get(), pData, nLen, 0);
        if (nSent == static_cast<ssize_t>(nLen)) {
            return;
        }
        if (nSent >= 0 || errno != ECONNREFUSED) {
            break;
        }
    }
    throw std::system_error(errno, std::generic_category(), "log client: send");
}

std::optional<LogcCtrlFrame> CLogClient::ReceiveControl(int nTimeoutMs) {
    pollfd waiting{m_Control.Get(), POLLIN, 0};
    if (poll(&waiting, 1, nTimeoutMs) < 1) {
        return std::nullopt;
    }
    LogcCtrlFrame frame{};
    const ssize_t nBytes = recv(m_Control.Get(), &frame, sizeof(frame), 0);
    if (nBytes < static_cast<ssize_t>(kLanguageFrameBytes) || frame.dwMagic != LOGC_CTRL_MAGIC ||
        frame.dwLength != static_cast<std::uint32_t>(nBytes)) {
        return std::nullopt;
    }
    return frame;
}
