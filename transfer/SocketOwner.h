// Which process of this machine a socket belongs to, for telling people who is at the other end.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>

struct SocketEnd {
    std::uint32_t dwAddress = 0;  // host byte order, as the port
    std::uint16_t wPort = 0;

    bool operator==(const SocketEnd&) const = default;
};

// The owner of the TCP socket that is bound to local and connected to remote (all 0: that listens),
// as "tarvik-logd, pid 812, user tarvik-log". Program and pid are there only for who may look at
// that process; empty: nothing can be told.
std::string SocketOwner(const SocketEnd& local, const SocketEnd& remote);
