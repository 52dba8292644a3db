// Moving bytes between a TCP connection and its rings, one system call a step.
//
// Threads: any; each call works on its caller's socket and ring.
#pragma once

#include <cstdint>

#include "core/Buff.h"

// How a step ended.
enum class RingIoEnd : std::uint8_t {
    kMore,    // all that was asked for was moved; another step may move more
    kPause,   // no more for now: the socket would block or the ring has nothing left to move
    kClosed,  // receiving only: the peer has ended its stream
    kFailed,  // the connection is broken; errno says how
};

struct RingIoStep {
    RingIoEnd eEnd;
    std::int32_t nBytes;  // bytes moved
};

constexpr std::int32_t kMaxSendBytes = 1024;      // of one send
constexpr std::int32_t kMaxReceiveBytes = 10240;  // of one recv

// Receives once into the free space of ring, at most kMaxReceiveBytes. kMore: all that was asked
// for came. kPause: less came, or nothing, or the ring is full. The socket must be non-blocking.
[[nodiscard]] RingIoStep ReceiveStep(int nSocket, CBuff& ring);

// Sends the oldest bytes of ring once, at most kMaxSendBytes, and takes out of it what went. kMore:
// all that was offered went. kPause: less went, or nothing, or the ring was empty. Never kClosed,
// never a signal. The socket must be non-blocking.
[[nodiscard]] RingIoStep SendStep(int nSocket, CBuff& ring);

// Repeats SendStep until one does not end with kMore. Returns how that one ended and the bytes that
// all of them sent; after kPause the socket would block unless ring is empty. nBytes counts with
// kFailed too.
[[nodiscard]] RingIoStep SendPending(int nSocket, CBuff& ring);

// Closes a connection so that the peer sees the end of the stream. What it had sent and nobody read
// is read and dropped first, up to 160 KB, since the kernel answers unread bytes with a reset,
// which may also cost the peer what was sent to it. Does not wait.
void CloseConnection(int nSocket);
