// Timers post when their time has elapsed, never after they were killed, and stale handles do
// nothing.
#include "core/TimerService.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "core/TestPipe.h"

namespace {

class TimerService : public testing::Test {
protected:
    // The identifiers of the timers that post in one tick, in order.
    std::string Tick(std::int64_t nElapsedMs) {
        m_service.Tick(nElapsedMs);
        std::string strIds;
        for (const PipeMsg& msg : m_pipe.Drain()) {
            EXPECT_EQ(msg, (PipeMsg{32769, msg.wParam, 77}));
            strIds += std::to_string(msg.wParam);
        }
        return strIds;
    }
    TimerHandle Set(std::uint32_t nId, std::int32_t nInterval) {
        return m_service.SetTimer(m_pipe.WriteEnd(), nId, nInterval, 77);
    }

    CTestPipe m_pipe;
    CTimerService m_service;
};

TEST_F(TimerService, PostsOncePerPeriodAndDropsTheOvershoot) {
    const struct {
        std::int32_t nInterval;
        int nTicks;
        std::int64_t nTickMs;
        const char* szPosts;
    } kCases[] = {{3000, 299, 10, ""}, {3000, 300, 10, "4"}, {3000, 546, 11, "44"},
                  {10, 3, 9, "4"},     {0, 3, 1000, "444"},  {INT32_MAX, 2, 10000000000, "44"}};
    for (const auto& c : kCases) {
        const TimerHandle hTimer = Set(4, c.nInterval);
        std::string strPosts;
        for (int nTick = 0; nTick < c.nTicks; ++nTick) {
            strPosts += Tick(c.nTickMs);
        }
        EXPECT_EQ(strPosts, c.szPosts) << c.nTicks << " ticks of " << c.nTickMs << " ms";
        m_service.KillTimer(hTimer, 4);
    }
}

// Timers end at the front, in the middle and at the back of the list in one tick.
TEST_F(TimerService, EndedTimersAndTheirHandlesLeaveTheOthersAlone) {
    std::vector<TimerHandle> handles;
    for (std::uint32_t nId = 0; nId < 7; ++nId) {
        handles.push_back(nId % 3 != 0 ? Set(nId, 10)
                                       : m_service.SetOneShotTimer(m_pipe.WriteEnd(), nId, 10, 77));
    }
    m_service.KillTimer(handles[4], 4);
    m_service.KillTimer(handles[5], 4);  // not its identifier
    EXPECT_EQ(Tick(9), "");
    EXPECT_EQ(Tick(1), "653210") << "newest first";
    EXPECT_EQ(Tick(10), "521");
    Set(4, 10);
    bool bFired = true;
    for (const TimerHandle hStale : {handles[4], TimerHandle()}) {
        EXPECT_EQ(m_service.IsTimerFired(hStale, bFired) + m_service.ResetTimer(hStale), 0);
        m_service.KillTimer(hStale, 4);
        m_service.KillTimerByHandle(hStale);
    }
    m_service.KillTimerByHandle(handles[2]);
    EXPECT_EQ(Tick(10), "451");
}

int g_nCalls = 0;

TEST_F(TimerService, LosesTheExpiryThatMeetsAFullPipeAndGoesOn) {
    g_nCalls = 0;
    m_service.SetTimer(m_pipe.WriteEnd(), 1, 10, 77, [] { ++g_nCalls; });
    m_pipe.Fill();
    m_service.Tick(10);
    m_pipe.Drain();
    EXPECT_EQ(Tick(9), "");
    EXPECT_EQ(Tick(1), "1");
    EXPECT_EQ(g_nCalls, 2);
}

TEST_F(TimerService, TimersComeAndGoFromManyThreadsUntilTheServiceStops) {
    ASSERT_EQ(m_service.StartTimerThread() + m_service.StartTimerThread(), 2);
    std::vector<std::jthread> owners;
    for (std::uint32_t nOwner = 0; nOwner < 4; ++nOwner) {
        owners.emplace_back([this, nOwner] {
            for (int nRound = 0; nRound < 500; ++nRound) {
                m_service.KillTimer(Set(nOwner, nRound % 20), nOwner);
            }
            m_service.ResetTimer(Set(nOwner, 0));
        });
    }
    owners.clear();  // joins
    pollfd wait{m_pipe.ReadEnd(), POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 10000), 1) << "the thread ticks";
    m_service.StopTimerThread();
    m_pipe.Drain();
    EXPECT_EQ(Tick(1000000), "") << "no timer outlives the thread";
}

// The thread has slept for a while when a timer is set or reset: that time is not the timer's.
TEST_F(TimerService, TimersSetDuringALongSleepWakeTheThreadAndAreNotEarly) {
    using std::chrono::milliseconds;
    ASSERT_EQ(m_service.StartTimerThread(), 1);
    for (const bool bReset : {false, true}) {
        std::this_thread::sleep_for(milliseconds(60));
        auto tBegin = std::chrono::steady_clock::now();
        const TimerHandle hTimer = Set(1, 80);
        if (bReset) {
            std::this_thread::sleep_for(milliseconds(40));
            tBegin = std::chrono::steady_clock::now();
            EXPECT_EQ(m_service.ResetTimer(hTimer), 1);
        }
        pollfd wait{m_pipe.ReadEnd(), POLLIN, 0};
        EXPECT_EQ(poll(&wait, 1, 10000), 1);
        EXPECT_GE(std::chrono::steady_clock::now() - tBegin, milliseconds(75));
        m_service.KillTimer(hTimer, 1);
        m_service.SetOneShotTimer(m_pipe.WriteEnd(), 2, 10);  // whose tick comes next
        bool bFired = false;
        for (int i = 0; i < 1000 && m_service.IsTimerFired(hTimer, bFired) == 1; ++i) {
            std::this_thread::sleep_for(milliseconds(10));
        }
        EXPECT_EQ(m_service.IsTimerFired(hTimer, bFired), 0) << "the next tick ends it";
        m_pipe.Drain();
    }
}

}  // namespace
