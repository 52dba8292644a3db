// A payload arrives once, whole, or not at all; every failure is named and keeps no slot.
#include "core/MsgQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/TestPipe.h"
#include "support/MonoClock.h"

namespace {

constexpr auto kFixed = &CMsgQueue::PostMsgFixed;

class MsgQueue : public testing::Test {
protected:
    int Post(const std::string& strPayload, decltype(kFixed) pfnPost = &CMsgQueue::PostMsg) {
        return (m_queue.*pfnPost)(m_pipe.WriteEnd(), MSG_CT_MT_HLOG, strPayload.data(),
                                  static_cast<std::int32_t>(strPayload.size()));
    }
    std::string Error() const { return static_cast<const char*>(m_queue.GetErrorText()); }

    // What waits behind nHandle; the error when nothing does.
    std::string Take(std::int32_t nHandle) {
        MsgPayload payload;
        const bool bTaken = m_queue.TakeMsg(nHandle, payload) == 1;
        return bTaken ? std::string(payload.begin(), payload.end()) : Error();
    }

    CTestPipe m_pipe;
    CMsgQueue m_queue;
};

TEST_F(MsgQueue, GivesAPayloadOnceAndKnowsHandles0To5000Only) {
    char byOut = '?';
    const std::function<int(std::int32_t)> kFetches[] = {
        [&](std::int32_t nHandle) { return m_queue.GetMsg(nHandle, &byOut); },
        [&](std::int32_t nHandle) { return m_queue.FreeMsg(nHandle); },
        [&](std::int32_t nHandle) { return Take(nHandle).size() == 1; }};
    std::int32_t nHandle = 0;
    for (const auto& fetch : kFetches) {
        ++nHandle;  // a slot rests before it is taken again
        ASSERT_EQ(Post("a", kFixed) + Post("b"), 2);
        const auto nFixed = static_cast<std::int32_t>(m_pipe.Drain().front().wParam);
        EXPECT_EQ(m_queue.GetMsgLen(nHandle), 1);
        EXPECT_EQ(fetch(nFixed) + fetch(nHandle), 2);
        for (const std::int32_t nBad : {nHandle, nFixed, 5000, -1, 5001, INT32_MIN}) {
            EXPECT_EQ(fetch(nBad), 0) << nBad;
            EXPECT_EQ(m_queue.GetMsgLen(nBad), -1) << nBad;
            EXPECT_EQ(Error(), nBad < 0 || nBad == 5001 ? "MSG_ERR_ERRINDEX" : "MSG_ERR_Common");
        }
        EXPECT_EQ(m_queue.GetSmallFree(), 5000);
    }
    EXPECT_EQ(byOut, 'b');
}

TEST_F(MsgQueue, TakesOneFixedPayloadOf1To255BytesAtATime) {
    EXPECT_EQ(Post("") + Post("", kFixed), 0);
    EXPECT_EQ(Error(), "MSG_ERR_NoBuff");
    EXPECT_EQ(Post(std::string(256, 'x'), kFixed), 0);
    EXPECT_EQ(Error(), "MSG_ERR_LengthTooLong");
    EXPECT_EQ(Post(std::string(255, 'y'), kFixed), 1);
    EXPECT_EQ(Post("z", kFixed), 0);
    EXPECT_EQ(Error(), "MSG_ERR_NoBuff");
    EXPECT_EQ(Take(0), std::string(255, 'y'));
    const CString strCopy = m_queue.GetErrorText();
    EXPECT_NE(strCopy.GetData(), m_queue.GetErrorText().GetData()) << "threads share no counts";
}

TEST_F(MsgQueue, AFullPipeCostsThePostAndNothingElse) {
    ASSERT_EQ(Post("kept"), 1);
    m_pipe.Fill();
    EXPECT_EQ(Post("lost") + Post("lost", kFixed), 0);
    EXPECT_EQ(Error(), "MSG_ERR_CANTPOST");
    EXPECT_EQ(m_queue.GetSmallFree(), 4999);
    EXPECT_EQ(Take(0), "MSG_ERR_Common");
    EXPECT_EQ(Take(1), "kept");
}

// One pass looks at 50 small slots: after n passes the first 50 n are gone, and only when too old.
TEST_F(MsgQueue, Holds5000FindsTheFreeOneAndDropsWhatIsOlderThanAMinute) {
    const std::int64_t nBefore = MonotonicMs();
    for (int nPost = 1; nPost <= 5000; ++nPost) {
        ASSERT_EQ(Post("small"), 1);
        m_pipe.Drain();
    }
    EXPECT_EQ(Post("one too many"), 0);
    EXPECT_EQ(Error(), "MSG_ERR_NoBuff");
    EXPECT_EQ(Take(3210), "small");
    ASSERT_EQ(Post("again") + Post("fixed", kFixed), 2);
    // The slot is 3210 again; the handle is another, and the old one stands for nothing.
    EXPECT_EQ(m_pipe.Drain().front(), (PipeMsg{3020, 8192 + 3210, 3}));
    EXPECT_EQ(Take(3210), "MSG_ERR_Common");
    const std::int64_t nAfter = MonotonicMs();
    for (int nPass = 1; nPass <= 100; ++nPass) {
        m_queue.ExpireOld(nBefore + 60000);
    }
    EXPECT_EQ(m_queue.GetSmallFree(), 0) << "exactly a minute is not too old";
    EXPECT_EQ(m_queue.GetMsgLen(0), 5);
    for (int nPass = 1; nPass <= 100; ++nPass) {
        m_queue.ExpireOld(nAfter + 60001);
        ASSERT_EQ(m_queue.GetSmallFree(), 50 * nPass);
        ASSERT_EQ(m_queue.GetMsgLen(50 * nPass), -1);
    }
    EXPECT_EQ(Take(0), "MSG_ERR_Common");
}

// The payload of a post, which nobody mistakes for another one.
std::string PayloadOf(char cPoster, std::size_t nSeq) {
    return cPoster + std::string(nSeq * 7 % 300, static_cast<char>(nSeq));
}

TEST_F(MsgQueue, ManyPostersReachOneReceiverInOrder) {
    constexpr std::size_t kPostsEach = 1500;
    std::atomic<bool> bDone{false};
    std::vector<std::jthread> threads;
    for (const char cPoster : {'A', 'B', 'C', 'D'}) {
        threads.emplace_back([this, cPoster, &bDone] {
            for (std::size_t nSeq = 0; nSeq < kPostsEach && !bDone;) {
                nSeq += Post(PayloadOf(cPoster, nSeq)) == 1 ? 1 : 0;  // 0: the pipe is full
            }
        });
    }
    std::map<char, std::size_t> mapNext;
    std::size_t nReceived = 0;
    pollfd wait{m_pipe.ReadEnd(), POLLIN, 0};
    while (nReceived < 4 * kPostsEach && poll(&wait, 1, 20000) == 1) {
        m_queue.ExpireOld(MonotonicMs());
        for (const PipeMsg& msg : m_pipe.Drain()) {
            const std::string strPayload = Take(static_cast<std::int32_t>(msg.wParam));
            EXPECT_EQ(strPayload, PayloadOf(strPayload[0], mapNext[strPayload[0]]++));
            ++nReceived;
        }
    }
    bDone = true;
    threads.clear();  // joins
    EXPECT_EQ(nReceived, 4 * kPostsEach);
    EXPECT_EQ(m_queue.GetSmallFree(), 5000);
}

}  // namespace
