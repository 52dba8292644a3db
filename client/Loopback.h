// UDP sockets of this machine.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

namespace tarvik {

// A UDP socket that never blocks and is not inherited by programs; -1 with errno.
inline int MakeUdpSocket() {
    return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Runs bind or connect on nSocket with 127.0.0.1 and wPort; their result.
inline int ToLoopback(int (*operation)(int, const sockaddr*, socklen_t), int nSocket,
                      std::uint16_t wPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wPort);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return operation(nSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

}  // namespace tarvik
