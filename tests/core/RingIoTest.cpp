// Bytes between socket and ring: how each step ends, and what moved.
#include "core/RingIo.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include "support/Socket.h"
#include "support/UniqueFd.h"

namespace {

std::string TakeAll(CBuff& ring) {
    std::string strText(static_cast<std::size_t>(ring.GetUsed()), '\0');
    ring.Skip(ring.Peek(strText.data(), ring.GetUsed()));
    return strText;
}

// The two ends of a TCP connection.
std::pair<CUniqueFd, CUniqueFd> Connected() {
    const CUniqueFd listener(MakeSocket(SOCK_STREAM));
    CUniqueFd one(MakeSocket(SOCK_STREAM));
    sockaddr_in address{};
    socklen_t nLen = sizeof(address);
    EXPECT_TRUE(BindToAddress(listener.Get(), kLoopback, 0));
    EXPECT_EQ(listen(listener.Get(), 1), 0);
    getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &nLen);
    EXPECT_TRUE(ConnectSocket(one.Get(), kLoopback, ntohs(address.sin_port)));
    CUniqueFd other(accept(listener.Get(), nullptr, nullptr));
    EXPECT_EQ(SetNonBlocking(one.Get()) + SetNonBlocking(other.Get()), 0);
    return {std::move(one), std::move(other)};
}

// In pieces as they come: a connection that is nearly full takes a part of what it is offered.
TEST(RingIo, MovesEveryByteOnceThroughAConnectionThatIsFull) {
    const auto [ours, peer] = Connected();
    constexpr std::int32_t kBytes = 16 << 20;  // several times what the sockets take
    std::string strText;
    while (strText.size() < kBytes) {
        strText += std::to_string(strText.size()) + ' ';
    }
    strText.resize(kBytes);
    CBuff toSend(kBytes);
    CBuff came(kBytes);
    ASSERT_EQ(toSend.Write(strText.data(), kBytes), kBytes);
    pollfd wait{peer.Get(), POLLIN, 0};
    for (std::int32_t nSent = 0; came.GetUsed() < kBytes;) {
        const RingIoStep sent = SendPending(ours.Get(), toSend);
        EXPECT_EQ(sent.eEnd, RingIoEnd::kPause);
        nSent += sent.nBytes;
        ASSERT_EQ(nSent, kBytes - toSend.GetUsed());
        ASSERT_EQ(poll(&wait, 1, 10000), 1);
        for (int nStep = 0; nStep < 40 && ReceiveStep(peer.Get(), came).nBytes > 0; ++nStep) {
        }
    }
    EXPECT_TRUE(TakeAll(came) == strText);
}

TEST(RingIo, ReceivesWhatFitsAndSaysHowAStepEnded) {
    int nEnds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, nEnds), 0);
    const CUniqueFd ours(nEnds[0]);
    CUniqueFd peer(nEnds[1]);
    CBuff ring(8);
    const auto receive = [&](const std::string& strSent) {
        send(peer.Get(), strSent.data(), strSent.size(), MSG_NOSIGNAL);
        const RingIoStep step = ReceiveStep(ours.Get(), ring);
        return std::pair(step.eEnd, step.nBytes);
    };
    EXPECT_EQ(receive("abc"), std::pair(RingIoEnd::kPause, 3));
    EXPECT_EQ(receive("defghi"), std::pair(RingIoEnd::kMore, 5));
    EXPECT_EQ(receive(""), std::pair(RingIoEnd::kPause, 0)) << "full; the rest waits";
    EXPECT_EQ(TakeAll(ring), "abcdefgh");
    peer.Reset();
    EXPECT_EQ(receive(""), std::pair(RingIoEnd::kPause, 1));
    EXPECT_EQ(receive(""), std::pair(RingIoEnd::kClosed, 0));
    EXPECT_EQ(SendPending(ours.Get(), ring).eEnd, RingIoEnd::kFailed) << "and raises no signal";
    EXPECT_EQ(TakeAll(ring), "i");
}

}  // namespace
