#include "support/Socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

sockaddr_in Ipv4Address(std::uint32_t dwHost, std::uint16_t wPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wPort);
    address.sin_addr.s_addr = htonl(dwHost);
    return address;
}

}  // namespace

bool FitsSelect(int nDescriptor) {
    return nDescriptor >= 0 && nDescriptor < FD_SETSIZE;
}

int MakeSocket(int nType) {
    const int nSocket = socket(AF_INET, nType | SOCK_CLOEXEC, 0);
    if (nSocket >= 0 && !FitsSelect(nSocket)) {
        close(nSocket);
        errno = EMFILE;
        return -1;
    }
    return nSocket;
}

bool BindToPort(int nSocket, std::uint16_t wPort) {
    return BindToAddress(nSocket, INADDR_ANY, wPort);
}

bool BindToAddress(int nSocket, std::uint32_t dwHost, std::uint16_t wPort) {
    const sockaddr_in address = Ipv4Address(dwHost, wPort);
    return bind(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool ConnectSocket(int nSocket, std::uint32_t dwHost, std::uint16_t wPort) {
    const sockaddr_in address = Ipv4Address(dwHost, wPort);
    return connect(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

int SetNonBlocking(int nDescriptor) {
    const int nFlags = fcntl(nDescriptor, F_GETFL);
    if (nFlags == -1) {
        return 1;
    }
    return fcntl(nDescriptor, F_SETFL, nFlags | O_NONBLOCK) == -1 ? 2 : 0;
}

int SendDatagram(int nSocket, std::uint32_t dwHost, std::uint16_t wPort, const void* pData,
                 std::size_t nLen) {
    const sockaddr_in address = Ipv4Address(dwHost, wPort);
    const ssize_t nSent = sendto(nSocket, pData, nLen, 0,
                                 reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    return nSent == static_cast<ssize_t>(nLen) ? 0 : static_cast<int>(nSent);
}

int WaitForEvents(int nHighest, fd_set* pRead, fd_set* pWrite, int nLimitMs) {
    timeval tvWait{nLimitMs / 1000, nLimitMs % 1000 * 1000};
    const int nReady =
        select(nHighest + 1, pRead, pWrite, nullptr, nLimitMs >= 0 ? &tvWait : nullptr);
    return nReady == -1 && errno == EINTR ? 0 : nReady;
}

void Rest(int nMicroseconds) {
    timeval tvWait{0, nMicroseconds};
    select(0, nullptr, nullptr, nullptr, &tvWait);
}
