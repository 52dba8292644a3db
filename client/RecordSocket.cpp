#include "client/RecordSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "client/Loopback.h"

namespace tarvik {

namespace {

// Each failed try takes away an error that another thread's record has left; so many in a row that
// none of them is the one that sends do not happen by chance.
constexpr int kMaxTries = 64;

}  // namespace

CRecordSocket::~CRecordSocket() {
    if (m_nSocket >= 0) {
        close(m_nSocket);
    }
}

int CRecordSocket::Open(std::uint16_t wServicePort) {
    int nError = Connect(wServicePort);
    if (nError == 0 && HasPort(wServicePort)) {
        // While the service is down, the system may pick its very port for this socket, which would
        // send to itself and keep the service from starting. As long as that socket is held, the
        // next one has another port.
        const int nHeld = std::exchange(m_nSocket, -1);
        nError = Connect(wServicePort);
        close(nHeld);
    }
    return nError;
}

int CRecordSocket::Connect(std::uint16_t wServicePort) {
    m_nSocket = MakeUdpSocket();
    const int nOn = 1;
    if (m_nSocket < 0 || setsockopt(m_nSocket, IPPROTO_IP, IP_RECVERR, &nOn, sizeof(nOn)) != 0 ||
        ToLoopback(connect, m_nSocket, wServicePort) != 0) {
        return -errno;
    }
    return 0;
}

bool CRecordSocket::HasPort(std::uint16_t wPort) const {
    sockaddr_in own{};
    socklen_t nLen = sizeof(own);
    return getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&own), &nLen) == 0 &&
           ntohs(own.sin_port) == wPort;
}

int CRecordSocket::Send(const LogRecord& record) {
    // Counted first: its refusal may be found by another thread before this one is back.
    m_nTried.fetch_add(1);
    const int nError = Deliver(record);
    if (nError != 0) {
        m_nLost.fetch_add(1);
    }
    return nError;
}

int CRecordSocket::Deliver(const LogRecord& record) {
    int nError = 0;
    for (int nTry = 0; nTry < kMaxTries; ++nTry) {
        if (send(m_nSocket, &record, sizeof(record), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return 0;
        }
        nError = -errno;
        const bool bOfEarlier = CountRefused() > 0 || nError == -ECONNREFUSED;
        if (!bOfEarlier) {
            break;
        }
    }
    return nError;
}

// Counts the records that came back since the last time; their number.
std::uint64_t CRecordSocket::CountRefused() {
    std::uint64_t nRefused = 0;
    // Of the datagram, which comes with its error; one byte is enough to take both.
    char cStart = 0;
    while (recv(m_nSocket, &cStart, sizeof(cStart), MSG_ERRQUEUE | MSG_DONTWAIT) >= 0) {
        ++nRefused;
    }
    m_nLost.fetch_add(nRefused);
    return nRefused;
}

void CRecordSocket::CountLost(std::uint64_t nRecords) {
    m_nTried.fetch_add(nRecords);
    m_nLost.fetch_add(nRecords);
}

void CRecordSocket::GetCounts(std::uint64_t& nSent, std::uint64_t& nLost) {
    CountRefused();
    nLost = m_nLost.load();
    nSent = m_nTried.load() - nLost;
}

}  // namespace tarvik
