// Bytes between socket and ring: how each step ends, and what moved.
#include "core/RingIo.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include "core/UniqueFd.h"

namespace {

std::string TakeAll(CBuff& ring) {
    std::string strText(static_cast<std::size_t>(ring.GetUsed()), '\0');
    ring.Skip(ring.Peek(strText.data(), ring.GetUsed()));
    return strText;
}

TEST(RingIo, MovesWhatFitsAndSaysHowAStepEnded) {
    int nEnds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, nEnds), 0);
    const CUniqueFd ours(nEnds[0]);
    CUniqueFd peer(nEnds[1]);
    constexpr std::int32_t kBytes = 4 << 20;  // more than the sockets take
    std::string strText;
    while (strText.size() < kBytes) {
        strText += std::to_string(strText.size()) + ' ';
    }
    CBuff toSend(kBytes);
    ASSERT_EQ(toSend.Write(strText.data(), kBytes), kBytes);
    const RingIoStep sent = SendPending(ours.Get(), toSend);
    EXPECT_EQ(sent.eEnd, RingIoEnd::kPause);
    EXPECT_EQ(sent.nBytes, kBytes - toSend.GetUsed());
    CBuff came(kBytes);
    while (ReceiveStep(peer.Get(), came).nBytes > 0) {
    }
    EXPECT_TRUE(TakeAll(came).append(TakeAll(toSend)) == strText.substr(0, kBytes));

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
