// Timers post when their time has elapsed, never after they were killed, and stale handles do
// nothing.
#include "core/TimerService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <thread>
#include <vector>

#include "core/FailingNew.h"
#include "core/TestPipe.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class TimerService : public testing::Test {
protected:
    CTestPipe m_pipe;
    CTimerService m_service;
};

struct PeriodCase {
    std::int32_t nInterval;
    int nTicks;
    std::int64_t nTickMs;
    std::size_t nPosts;
};

TEST_F(TimerService, PeriodicTimersPostOncePerPeriodAndDropTheOvershoot) {
    const PeriodCase kCases[] = {
        {3000, 299, 10, 0}, {3000, 300, 10, 1},
        {3000, 899, 10, 2}, {3000, 900, 10, 3},
        {3000, 272, 11, 0}, {3000, 273, 11, 1},
        {3000, 545, 11, 1}, {3000, 546, 11, 2},
        {0, 4, 10, 4},      {10, 4, 10, 4},
        {10, 4, 9, 2},      {10, 3, 1000, 3},
        {-5, 2, 10, 2},     {INT32_MAX, 2, 10000000000, 2},
        {10, 5, 0, 0},
    };
    for (const PeriodCase& c : kCases) {
        const TimerHandle hTimer = m_service.SetTimer(m_pipe.WriteEnd(), 4, c.nInterval, 77);
        ASSERT_TRUE(hTimer);
        for (int nTick = 0; nTick < c.nTicks; ++nTick) {
            m_service.Tick(c.nTickMs);
        }
        const std::vector<PipeMsg> expected(c.nPosts, PipeMsg{MSG_TIMER, 4, 77});
        EXPECT_EQ(m_pipe.Drain(), expected)
            << c.nTicks << " ticks of " << c.nTickMs << " ms at an interval of " << c.nInterval;
        m_service.KillTimerByHandle(hTimer);
        m_service.Tick(0);
    }
}

TEST_F(TimerService, KillTimerWantsHandleAndIdentifier) {
    const TimerHandle hTimer = m_service.SetTimer(m_pipe.WriteEnd(), 2, 10);
    m_service.KillTimer(hTimer, 3);
    m_service.KillTimer(TimerHandle(), 2);
    m_service.KillTimerByHandle(TimerHandle());
    m_service.Tick(10);
    EXPECT_THAT(m_pipe.Drain(), SizeIs(1));
    m_service.KillTimer(hTimer, 2);
    m_service.Tick(10);
    m_service.Tick(10);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
}

TEST_F(TimerService, StaleHandlesNameNothing) {
    const TimerHandle hOld = m_service.SetTimer(m_pipe.WriteEnd(), 1, 10);
    m_service.KillTimerByHandle(hOld);
    m_service.Tick(10);
    const TimerHandle hNew = m_service.SetTimer(m_pipe.WriteEnd(), 1, 10);
    EXPECT_FALSE(hOld == hNew);
    bool bFired = true;
    for (const TimerHandle hTimer : {hOld, TimerHandle()}) {
        EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 0);
        EXPECT_EQ(m_service.ResetTimer(hTimer), 0);
        m_service.KillTimer(hTimer, 1);
        m_service.KillTimerByHandle(hTimer);
    }
    EXPECT_TRUE(bFired) << "untouched";
    m_service.Tick(10);
    EXPECT_THAT(m_pipe.Drain(), SizeIs(1)) << "the new timer still runs";
}

TEST_F(TimerService, OneShotTimersPostOnceAndAreGone) {
    const TimerHandle hTimer = m_service.SetOneShotTimer(m_pipe.WriteEnd(), 9, 25, 5);
    bool bFired = false;
    m_service.Tick(24);
    EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 1);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
    m_service.Tick(1);
    m_service.Tick(1000);
    EXPECT_THAT(m_pipe.Drain(), ElementsAre(PipeMsg{MSG_TIMER, 9, 5}));
    EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 0);
}

TEST_F(TimerService, TimersWithoutDescriptorFireSilentlyUntilReset) {
    const TimerHandle hTimer = m_service.SetTimer(0, 1, 100);
    bool bFired = true;
    m_service.Tick(99);
    EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 1);
    EXPECT_FALSE(bFired);
    m_service.Tick(1);
    EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 1);
    EXPECT_TRUE(bFired);
    m_service.Tick(60);
    EXPECT_EQ(m_service.ResetTimer(hTimer), 1);
    m_service.Tick(99);
    EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 1);
    EXPECT_FALSE(bFired) << "its time began anew";
}

// Timers end at the front, in the middle and at the back of the list in one tick.
TEST_F(TimerService, EndedTimersLeaveTheOthersAlone) {
    std::vector<TimerHandle> handles;
    for (std::uint32_t nId = 0; nId < 7; ++nId) {
        handles.push_back(nId % 3 == 0 ? m_service.SetOneShotTimer(m_pipe.WriteEnd(), nId, 10)
                                       : m_service.SetTimer(m_pipe.WriteEnd(), nId, 10));
    }
    m_service.KillTimer(handles[4], 4);
    const auto idsOfTick = [&] {
        m_service.Tick(10);
        std::vector<std::uint32_t> ids;
        for (const PipeMsg& msg : m_pipe.Drain()) {
            ids.push_back(msg.wParam);
        }
        return ids;
    };
    EXPECT_THAT(idsOfTick(), ElementsAre(6, 5, 3, 2, 1, 0))
        << "newest first, without the killed one";
    EXPECT_THAT(idsOfTick(), ElementsAre(5, 2, 1));
    EXPECT_THAT(idsOfTick(), ElementsAre(5, 2, 1));
}

int g_nCalls = 0;
int g_nLookAt = 0;
int g_nWaitingAtCall = 0;

TEST_F(TimerService, CallbacksRunAfterTheirMessage) {
    g_nCalls = g_nWaitingAtCall = 0;
    g_nLookAt = m_pipe.ReadEnd();
    const auto callback = [] {
        pollfd look{g_nLookAt, POLLIN, 0};
        g_nWaitingAtCall += poll(&look, 1, 0);
        ++g_nCalls;
    };
    EXPECT_TRUE(m_service.SetTimer(m_pipe.WriteEnd(), 1, 10, 0, callback));
    EXPECT_TRUE(m_service.SetTimer(0, 2, 10, 0, callback));
    m_service.Tick(9);
    EXPECT_EQ(g_nCalls, 0);
    m_service.Tick(1);
    EXPECT_EQ(g_nCalls, 1) << "the timer without descriptor calls nobody";
    EXPECT_EQ(g_nWaitingAtCall, 1);
}

TEST_F(TimerService, LosesTheExpiryThatMeetsAFullPipeAndGoesOn) {
    m_service.SetTimer(m_pipe.WriteEnd(), 1, 10);
    m_pipe.Fill();
    m_service.Tick(10);
    m_pipe.Drain();
    m_service.Tick(9);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
    m_service.Tick(1);
    EXPECT_THAT(m_pipe.Drain(), SizeIs(1));
}

TEST_F(TimerService, GivesTheNullHandleWhenMemoryIsExhausted) {
    const CFailingNew exhausted;
    EXPECT_FALSE(m_service.SetTimer(m_pipe.WriteEnd(), 1, 10));
    EXPECT_FALSE(m_service.SetOneShotTimer(m_pipe.WriteEnd(), 1, 10));
    m_service.Tick(10);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
}

TEST_F(TimerService, TheThreadTicksUntilItIsStoppedAndCanStartAgain) {
    EXPECT_EQ(m_service.StopTimerThread(), 0) << "there is none yet";
    for (int nRound = 0; nRound < 2; ++nRound) {
        ASSERT_EQ(m_service.StartTimerThread(), 1);
        ASSERT_EQ(m_service.StartTimerThread(), 1) << "it runs already";
        const TimerHandle hTimer = m_service.SetTimer(m_pipe.WriteEnd(), 1, 0);
        pollfd wait{m_pipe.ReadEnd(), POLLIN, 0};
        ASSERT_EQ(poll(&wait, 1, 10000), 1);
        EXPECT_EQ(m_service.StopTimerThread(), 0);
        bool bFired = false;
        EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 0) << "no timer outlives the thread";
        m_pipe.Drain();
    }
}

TEST_F(TimerService, TimersComeAndGoFromManyThreadsWhileItTicks) {
    ASSERT_EQ(m_service.StartTimerThread(), 1);
    std::vector<std::thread> owners;
    for (std::uint32_t nOwner = 0; nOwner < 4; ++nOwner) {
        owners.emplace_back([this, nOwner] {
            for (int nRound = 0; nRound < 500; ++nRound) {
                const TimerHandle hTimer =
                    m_service.SetTimer(m_pipe.WriteEnd(), nOwner, nRound % 20);
                m_service.SetOneShotTimer(m_pipe.WriteEnd(), nOwner, 5);
                m_service.ResetTimer(hTimer);
                m_service.KillTimer(hTimer, nOwner);
            }
        });
    }
    for (std::thread& owner : owners) {
        owner.join();
    }
    m_service.StopTimerThread();
    m_pipe.Drain();
    m_service.Tick(1000000);
    EXPECT_THAT(m_pipe.Drain(), IsEmpty());
}

}  // namespace
