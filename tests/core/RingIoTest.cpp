// Bytes between socket and ring: how each step ends, what moved, and how a connection is closed.
#include "core/RingIo.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/UniqueFd.h"

namespace {

std::string Pattern(std::size_t nLen) {
    std::string strText(nLen, '\0');
    for (std::size_t i = 0; i < nLen; ++i) {
        strText[i] = static_cast<char>('a' + i % 23);
    }
    return strText;
}

std::string Content(const CBuff& ring) {
    std::string strText(static_cast<std::size_t>(ring.GetUsed()), '\0');
    EXPECT_EQ(ring.Peek(strText.data(), ring.GetUsed()), ring.GetUsed());
    return strText;
}

class RingIo : public testing::Test {
protected:
    void SetUp() override {
        int nEnds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, nEnds), 0);
        m_Ours.Reset(nEnds[0]);
        m_Peer.Reset(nEnds[1]);
    }
    void PeerSends(const std::string& strText) {
        ASSERT_EQ(write(m_Peer.Get(), strText.data(), strText.size()),
                  static_cast<ssize_t>(strText.size()));
    }
    std::string PeerReads() {
        std::string strText;
        char szPiece[4096];
        for (ssize_t n = 0; (n = read(m_Peer.Get(), szPiece, sizeof(szPiece))) > 0;) {
            strText.append(szPiece, static_cast<std::size_t>(n));
        }
        return strText;
    }
    void ExpectReceive(CBuff& ring, RingIoEnd eEnd, std::int32_t nBytes) {
        const RingIoStep step = ReceiveStep(m_Ours.Get(), ring);
        EXPECT_EQ(step.eEnd, eEnd);
        EXPECT_EQ(step.nBytes, nBytes);
    }

    CUniqueFd m_Ours;
    CUniqueFd m_Peer;
};

TEST_F(RingIo, ReceivesWhatTheRingHasRoomFor) {
    CBuff ring(8);
    ExpectReceive(ring, RingIoEnd::kPause, 0);
    PeerSends("abc");
    ExpectReceive(ring, RingIoEnd::kPause, 3);
    PeerSends("defghi");
    ExpectReceive(ring, RingIoEnd::kMore, 5);
    ExpectReceive(ring, RingIoEnd::kPause, 0);  // full; the rest stays in the socket
    EXPECT_EQ(Content(ring), "abcdefgh");
    ring.Skip(8);
    m_Peer.Reset();
    ExpectReceive(ring, RingIoEnd::kPause, 1);
    ExpectReceive(ring, RingIoEnd::kClosed, 0);
    EXPECT_EQ(Content(ring), "i");
    m_Ours.Reset();
    ExpectReceive(ring, RingIoEnd::kFailed, 0);
}

TEST_F(RingIo, SendsPiecesUntilTheRingIsEmpty) {
    CBuff ring(4000);
    const std::string strText = Pattern(2500);
    ASSERT_EQ(ring.Write(strText.data(), 2500), 2500);
    const RingIoStep first = SendStep(m_Ours.Get(), ring);
    EXPECT_EQ(first.eEnd, RingIoEnd::kMore);
    EXPECT_EQ(first.nBytes, kMaxSendBytes);
    const RingIoStep rest = SendPending(m_Ours.Get(), ring);
    EXPECT_EQ(rest.eEnd, RingIoEnd::kPause);
    EXPECT_EQ(rest.nBytes, 2500 - kMaxSendBytes);
    EXPECT_EQ(ring.GetUsed(), 0);
    EXPECT_EQ(PeerReads(), strText);
}

TEST_F(RingIo, KeepsWhatTheSocketDoesNotTake) {
    CBuff ring(4 << 20);
    const std::string strText = Pattern(4 << 20);
    ASSERT_GT(ring.Write(strText.data(), 4 << 20), 0);
    std::string strCame;
    for (int nRounds = 0; ring.GetUsed() > 0; ++nRounds) {
        ASSERT_LT(nRounds, 10000);
        ASSERT_EQ(SendPending(m_Ours.Get(), ring).eEnd, RingIoEnd::kPause);
        if (nRounds == 0) {
            EXPECT_GT(ring.GetUsed(), 0);
        }
        strCame += PeerReads();
    }
    EXPECT_TRUE(strCame == strText);
}

TEST_F(RingIo, APeerThatIsGoneFailsTheSendWithoutASignal) {
    CBuff ring(8);
    ASSERT_EQ(ring.Write("abc", 3), 3);
    m_Peer.Reset();
    EXPECT_EQ(SendPending(m_Ours.Get(), ring).eEnd, RingIoEnd::kFailed);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(ring.GetUsed(), 3);
}

TEST(CloseConnection, IsAnEndOfStreamEvenWhenTheClientWasNotRead) {
    const CUniqueFd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(address);
    auto* pAddress = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(listener.Get(), pAddress, nLen), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    ASSERT_EQ(getsockname(listener.Get(), pAddress, &nLen), 0);
    const CUniqueFd client(socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(connect(client.Get(), pAddress, nLen), 0);
    CUniqueFd server(accept(listener.Get(), nullptr, nullptr));
    const std::string strText = Pattern(20000);
    ASSERT_EQ(send(client.Get(), strText.data(), strText.size(), 0), 20000);
    ASSERT_EQ(send(server.Get(), "bye", 3, 0), 3);
    CloseConnection(server.Release());
    char szPiece[8];
    EXPECT_EQ(recv(client.Get(), szPiece, sizeof(szPiece), 0), 3);
    EXPECT_EQ(recv(client.Get(), szPiece, sizeof(szPiece), 0), 0);  // -1 after a reset
}

}  // namespace
