#include "core/RingIo.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace {

constexpr int kMaxDiscardReads = 16;

// What a call that moved nothing means.
RingIoEnd EndOfErrno() {
    return errno == EAGAIN || errno == EWOULDBLOCK ? RingIoEnd::kPause : RingIoEnd::kFailed;
}

ssize_t ReceiveOnce(int nSocket, void* pTo, std::int32_t nMax, int nFlags) {
    ssize_t nReceived = 0;
    do {
        nReceived = recv(nSocket, pTo, static_cast<std::size_t>(nMax), nFlags);
    } while (nReceived < 0 && errno == EINTR);
    return nReceived;
}

ssize_t SendOnce(int nSocket, const void* pFrom, std::int32_t nLen, int nFlags) {
    ssize_t nSent = 0;
    do {
        nSent = send(nSocket, pFrom, static_cast<std::size_t>(nLen), MSG_NOSIGNAL | nFlags);
    } while (nSent < 0 && errno == EINTR);
    return nSent;
}

}  // namespace

RingIoStep ReceiveStep(int nSocket, CBuff& ring) {
    std::uint8_t byScratch[kMaxReceiveBytes];
    const std::int32_t nAsked = std::min(ring.GetFree(), kMaxReceiveBytes);
    if (nAsked < 1) {
        return {RingIoEnd::kPause, 0};
    }
    const ssize_t nReceived = ReceiveOnce(nSocket, byScratch, nAsked, 0);
    if (nReceived <= 0) {
        return {nReceived == 0 ? RingIoEnd::kClosed : EndOfErrno(), 0};
    }
    const std::int32_t nBytes = ring.Write(byScratch, static_cast<std::int32_t>(nReceived));
    return {nBytes == nAsked ? RingIoEnd::kMore : RingIoEnd::kPause, nBytes};
}

RingIoStep SendStep(int nSocket, CBuff& ring) {
    std::uint8_t byScratch[kMaxSendBytes];
    const std::int32_t nOffered = ring.Peek(byScratch, kMaxSendBytes);
    if (nOffered < 1) {
        return {RingIoEnd::kPause, 0};
    }
    // Chunks that follow one another travel together: a segment for each would wake the peer for
    // each. The kernel keeps no such chunk back for longer than what is under way takes.
    const int nFlags = ring.GetUsed() > nOffered ? MSG_MORE : 0;
    const ssize_t nSent = SendOnce(nSocket, byScratch, nOffered, nFlags);
    if (nSent < 0) {
        return {EndOfErrno(), 0};
    }
    const auto nBytes = static_cast<std::int32_t>(nSent);
    ring.Skip(nBytes);
    return {nBytes == nOffered ? RingIoEnd::kMore : RingIoEnd::kPause, nBytes};
}

RingIoStep SendPending(int nSocket, CBuff& ring) {
    std::int32_t nTotal = 0;
    RingIoStep step{};
    do {
        step = SendStep(nSocket, ring);
        nTotal += step.nBytes;
    } while (step.eEnd == RingIoEnd::kMore);
    return {step.eEnd, nTotal};
}

void CloseConnection(int nSocket) {
    std::uint8_t byScratch[kMaxReceiveBytes];
    int nReads = 0;
    while (nReads < kMaxDiscardReads &&
           ReceiveOnce(nSocket, byScratch, kMaxReceiveBytes, MSG_DONTWAIT) > 0) {
        ++nReads;
    }
    close(nSocket);
}
