// A payload arrives once, whole, or not at all; every failure is named and keeps no slot.
#include "core/MsgQueue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "core/FailingNew.h"
#include "core/MonoClock.h"
#include "core/TestPipe.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int32_t kAll = CMsgQueue::kSmallSlots;

class MsgQueue : public testing::Test {
protected:
    int Post(const std::string& strPayload, std::uint32_t nCode = MSG_MT_CT_SEND) {
        return m_queue.PostMsg(m_pipe.WriteEnd(), nCode, strPayload.data(),
                               static_cast<std::int32_t>(strPayload.size()));
    }
    int PostFixed(const std::string& strPayload, std::uint32_t nCode = MSG_MT_CT_SEND) {
        return m_queue.PostMsgFixed(m_pipe.WriteEnd(), nCode, strPayload.data(),
                                    static_cast<std::int32_t>(strPayload.size()));
    }
    // What waits behind nHandle; "(nothing)" when TakeMsg fails.
    std::string Take(std::int32_t nHandle) {
        std::vector<std::uint8_t> payload;
        return m_queue.TakeMsg(nHandle, payload) == 1 ? std::string(payload.begin(), payload.end())
                                                      : "(nothing)";
    }
    void FillAllSmallSlots() {
        for (std::int32_t nPost = 0; nPost < kAll; ++nPost) {
            ASSERT_EQ(Post(std::to_string(nPost)), 1);
            PipeMsg msg{};
            ASSERT_TRUE(m_pipe.Next(msg));
            ASSERT_EQ(msg.wParam, static_cast<std::uint32_t>(nPost + 1));
        }
    }

    CTestPipe m_pipe;
    CMsgQueue m_queue;
};

TEST_F(MsgQueue, CarriesAPayloadToWhoeverFetchesItFirst) {
    ASSERT_EQ(Post("hello", MSG_CT_MT_HLOG), 1);
    ASSERT_EQ(PostFixed(std::string("\0x", 2), MSG_UT_MT_QUIT), 1);
    EXPECT_THAT(m_pipe.Drain(), ElementsAre(PipeMsg{3020, 1, 3}, PipeMsg{3020, 0, 0}));
    EXPECT_EQ(m_queue.GetSmallFree(), kAll - 1);

    EXPECT_EQ(m_queue.GetMsgLen(1), 5);
    EXPECT_EQ(m_queue.GetMsgLen(1), 5) << "asking takes nothing";
    char szOut[6] = {};
    EXPECT_EQ(m_queue.GetMsg(1, szOut), 1);
    EXPECT_STREQ(szOut, "hello");
    EXPECT_EQ(m_queue.GetSmallFree(), kAll);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_NoError);
    EXPECT_EQ(m_queue.GetMsg(1, szOut), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_Common);

    EXPECT_EQ(m_queue.GetMsgLen(0), 2);
    EXPECT_EQ(Take(0), std::string("\0x", 2));
    EXPECT_EQ(Take(0), "(nothing)");
    EXPECT_EQ(m_queue.GetSmallFree(), kAll) << "the fixed slot is no small slot";
}

TEST_F(MsgQueue, LongPayloadsComeOutAsTheyWentIn) {
    std::string strLong(70000, 'a');
    strLong.back() = 'z';
    ASSERT_EQ(Post(strLong), 1);
    EXPECT_EQ(Take(1), strLong);
}

TEST_F(MsgQueue, FreedPayloadsAreGone) {
    ASSERT_EQ(Post("a"), 1);
    ASSERT_EQ(PostFixed("b"), 1);
    EXPECT_EQ(m_queue.FreeMsg(1), 1);
    EXPECT_EQ(m_queue.FreeMsg(0), 1);
    EXPECT_EQ(m_queue.FreeMsg(1), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_Common);
    EXPECT_EQ(m_queue.GetSmallFree(), kAll);
    EXPECT_EQ(PostFixed("c"), 1);
    EXPECT_EQ(Take(0), "c");
}

TEST_F(MsgQueue, TheFixedSlotTakes255BytesOneAtATime) {
    EXPECT_EQ(PostFixed(std::string(256, 'x')), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_LengthTooLong);
    const std::string strLongest(255, 'y');
    EXPECT_EQ(PostFixed(strLongest), 1);
    EXPECT_EQ(PostFixed("z"), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_NoBuff);
    EXPECT_EQ(Take(0), strLongest);
    EXPECT_EQ(PostFixed("z"), 1);
}

TEST_F(MsgQueue, RefusesLengthsItCannotHold) {
    for (const std::int32_t nLen : {0, -1, INT32_MIN}) {
        EXPECT_EQ(m_queue.PostMsg(m_pipe.WriteEnd(), 1, "x", nLen), 0) << nLen;
        EXPECT_EQ(m_queue.PostMsgFixed(m_pipe.WriteEnd(), 1, "x", nLen), 0) << nLen;
        EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_NoBuff) << nLen;
    }
    {
        const CFailingNew exhausted;
        EXPECT_EQ(Post("no memory"), 0);
    }
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_NoBuff);
    EXPECT_EQ(m_queue.GetSmallFree(), kAll);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
}

TEST_F(MsgQueue, KnowsHandles0To5000Only) {
    const struct {
        std::int32_t nHandle;
        std::int32_t nError;
    } kCases[] = {{-1, MSG_ERR_ERRINDEX},        {5001, MSG_ERR_ERRINDEX},
                  {INT32_MIN, MSG_ERR_ERRINDEX}, {INT32_MAX, MSG_ERR_ERRINDEX},
                  {0, MSG_ERR_Common},           {5000, MSG_ERR_Common}};
    char byOut = '?';
    std::vector<std::uint8_t> taken{'?'};
    const std::pair<const char*, std::function<int(std::int32_t)>> kOperations[] = {
        {"GetMsgLen", [&](std::int32_t h) { return m_queue.GetMsgLen(h) + 1; }},
        {"GetMsg", [&](std::int32_t h) { return m_queue.GetMsg(h, &byOut); }},
        {"TakeMsg", [&](std::int32_t h) { return m_queue.TakeMsg(h, taken); }},
        {"FreeMsg", [&](std::int32_t h) { return m_queue.FreeMsg(h); }},
    };
    for (const auto& [szName, operation] : kOperations) {
        for (const auto& c : kCases) {
            m_queue.PostMsg(m_pipe.WriteEnd(), 0, nullptr, 0);  // another error stands before
            EXPECT_EQ(operation(c.nHandle), 0) << szName << " of " << c.nHandle;
            EXPECT_EQ(m_queue.GetErrorCode(), c.nError) << szName << " of " << c.nHandle;
        }
    }
    EXPECT_EQ(byOut, '?');
    EXPECT_THAT(taken, ElementsAre('?'));
}

TEST_F(MsgQueue, HoldsExactly5000AndFindsTheOneThatIsFree) {
    ASSERT_NO_FATAL_FAILURE(FillAllSmallSlots());
    EXPECT_EQ(m_queue.GetSmallFree(), 0);
    EXPECT_EQ(Post("one too many"), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_NoBuff);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
    EXPECT_EQ(PostFixed("the fixed slot is another one"), 1);
    m_pipe.Drain();

    EXPECT_EQ(Take(3210), "3209");
    EXPECT_EQ(Post("again"), 1);
    EXPECT_THAT(m_pipe.Drain(), ElementsAre(PipeMsg{3020, 3210, 2}));
    EXPECT_EQ(Take(5000), "4999");
    EXPECT_EQ(Post("last"), 1);
    EXPECT_EQ(Take(1), "0");
    EXPECT_EQ(Post("first"), 1) << "the position goes on at 0 after the last slot";
    EXPECT_THAT(m_pipe.Drain(), ElementsAre(PipeMsg{3020, 5000, 2}, PipeMsg{3020, 1, 2}));
}

TEST_F(MsgQueue, GivesSlotsOutInTurn) {
    ASSERT_EQ(Post("a"), 1);
    ASSERT_EQ(Take(1), "a");
    ASSERT_EQ(Post("b"), 1);
    EXPECT_EQ(m_pipe.Drain().back().wParam, 2U) << "a handle rests before it is used again";
}

TEST_F(MsgQueue, AFullPipeCostsThePostAndNothingElse) {
    ASSERT_EQ(Post("kept"), 1);
    m_pipe.Fill();
    EXPECT_EQ(Post("lost"), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_CANTPOST);
    EXPECT_EQ(m_queue.GetSmallFree(), kAll - 1);
    EXPECT_EQ(m_queue.GetMsgLen(2), -1);
    EXPECT_EQ(PostFixed("lost"), 0);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_CANTPOST);
    EXPECT_EQ(m_queue.GetMsgLen(0), -1);
    EXPECT_EQ(Take(1), "kept");
    m_pipe.Drain();
    EXPECT_EQ(PostFixed("room again"), 1);
}

TEST_F(MsgQueue, NamesItsLastErrorInACopyOfItsOwn) {
    EXPECT_STREQ(m_queue.GetErrorText(), "MSG_ERR_NoError");
    const std::pair<const char*, std::function<void()>> kCases[] = {
        {"MSG_ERR_NoBuff", [&] { Post(""); }},
        {"MSG_ERR_LengthTooLong", [&] { PostFixed(std::string(300, 'x')); }},
        {"MSG_ERR_ERRINDEX", [&] { m_queue.FreeMsg(-1); }},
        {"MSG_ERR_Common", [&] { m_queue.FreeMsg(7); }},
        {"MSG_ERR_CANTPOST", [&] { m_pipe.Fill(), Post("x"); }},
    };
    for (const auto& [szText, fail] : kCases) {
        fail();
        const CString strOne = m_queue.GetErrorText();
        const CString strOther = m_queue.GetErrorText();
        EXPECT_STREQ(strOne, szText);
        EXPECT_NE(static_cast<const char*>(strOne), static_cast<const char*>(strOther))
            << "reference counts are not shared between threads";
    }
}

// One pass looks at 50 small slots: after n passes the first 50 n are gone, and only when too old.
TEST_F(MsgQueue, ExpiresWhatIsOlderThanAMinuteSlotAfterSlot) {
    const std::int64_t nBefore = MonotonicMs();
    ASSERT_NO_FATAL_FAILURE(FillAllSmallSlots());
    ASSERT_EQ(PostFixed("fixed"), 1);
    const std::int64_t nAfter = MonotonicMs();

    for (int nPass = 0; nPass < kAll / CMsgQueue::kSmallSlotsPerPass; ++nPass) {
        m_queue.ExpireOld(nBefore + 60000);
    }
    EXPECT_EQ(m_queue.GetSmallFree(), 0) << "exactly a minute is not too old";
    EXPECT_EQ(m_queue.GetMsgLen(0), 5);

    m_queue.ExpireOld(nAfter + 60001);
    EXPECT_EQ(m_queue.GetMsgLen(0), -1);
    EXPECT_EQ(m_queue.GetErrorCode(), MSG_ERR_Common);
    EXPECT_EQ(m_queue.GetMsgLen(50), -1);
    EXPECT_EQ(m_queue.GetMsgLen(51), 2);
    EXPECT_EQ(m_queue.GetSmallFree(), 50);
    for (int nPass = 1; nPass < 100; ++nPass) {
        m_queue.ExpireOld(nAfter + 60001);
        ASSERT_EQ(m_queue.GetSmallFree(), 50 * (nPass + 1));
    }
    EXPECT_EQ(Post("a free queue takes posts again"), 1);
    m_queue.ExpireOld(MonotonicMs() + 60001);
    EXPECT_EQ(m_queue.GetSmallFree(), kAll) << "after the last slot the walk begins anew";
}

// A clock that seems to stand before the post makes nothing old.
TEST_F(MsgQueue, ExpiresNothingBeforeItsTime) {
    ASSERT_EQ(Post("x"), 1);
    m_queue.ExpireOld(INT32_MIN);
    m_queue.ExpireOld(0);
    EXPECT_EQ(Take(1), "x");
}

TEST_F(MsgQueue, TheCleanerStartsOnceAndStops) {
    m_queue.StopCleaner();
    for (int nRound = 0; nRound < 2; ++nRound) {
        EXPECT_EQ(m_queue.StartCleaner(), 1);
        EXPECT_EQ(m_queue.StartCleaner(), 1) << "it runs already";
        ASSERT_EQ(Post("young"), 1);
        m_queue.StopCleaner();
        EXPECT_EQ(Take(nRound + 1), "young");
    }
    EXPECT_EQ(m_queue.StartCleaner(), 1);  // the destructor stops this one
}

constexpr std::uint32_t kPosters = 4;
constexpr std::uint32_t kPostsEach = 1500;

// The payload of post nSeq of poster nPoster: as long and as filled as the two say.
std::vector<std::uint8_t> PayloadOf(std::uint32_t nPoster, std::uint32_t nSeq) {
    return std::vector<std::uint8_t>(1 + (nSeq * 7 + nPoster) % 300,
                                     static_cast<std::uint8_t>(nSeq + 50 * nPoster));
}

void PostAll(CMsgQueue& queue, int nFd, std::uint32_t nPoster, const std::atomic<bool>& bDone) {
    for (std::uint32_t nSeq = 0; nSeq < kPostsEach; ++nSeq) {
        const std::vector<std::uint8_t> payload = PayloadOf(nPoster, nSeq);
        while (queue.PostMsg(nFd, nPoster, payload.data(),
                             static_cast<std::int32_t>(payload.size())) == 0 &&
               !bDone) {
            std::this_thread::yield();  // the receiver makes room
        }
    }
}

TEST_F(MsgQueue, ManyPostersReachOneReceiverInOrder) {
    ASSERT_GT(fcntl(m_pipe.WriteEnd(), F_SETPIPE_SZ, 4096), 0);  // so that posts fail now and then
    std::atomic<bool> bDone{false};
    std::vector<std::thread> threads;
    for (std::uint32_t nPoster = 0; nPoster < kPosters; ++nPoster) {
        threads.emplace_back(
            [this, nPoster, &bDone] { PostAll(m_queue, m_pipe.WriteEnd(), nPoster, bDone); });
    }
    threads.emplace_back([this, &bDone] {
        while (!bDone) {
            m_queue.ExpireOld(MonotonicMs());
            m_queue.GetErrorText();
        }
    });

    std::uint32_t nNext[kPosters] = {};
    std::vector<std::uint8_t> payload;
    std::uint32_t nWrong = 0;
    for (std::uint32_t nReceived = 0; nReceived < kPosters * kPostsEach;) {
        pollfd wait{m_pipe.ReadEnd(), POLLIN, 0};
        if (poll(&wait, 1, 20000) != 1) {
            ADD_FAILURE() << "nothing came after " << nReceived << " messages";
            break;
        }
        for (PipeMsg msg{}; m_pipe.Next(msg); ++nReceived) {
            const bool bTaken =
                m_queue.TakeMsg(static_cast<std::int32_t>(msg.wParam), payload) == 1;
            nWrong += bTaken && payload == PayloadOf(msg.lParam, nNext[msg.lParam]) ? 0 : 1;
            ++nNext[msg.lParam];
        }
    }
    bDone = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(nWrong, 0U);
    EXPECT_EQ(m_queue.GetSmallFree(), kAll);
}

}  // namespace
