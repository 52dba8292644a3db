// Queue and timers against models that are too simple to be wrong, under a million random
// operations. (The rings have theirs in BuffTest and CircleBufferTest.)
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "core/MsgQueue.h"
#include "core/TestPipe.h"
#include "core/TimerService.h"
#include "support/MonoClock.h"

namespace {

class Dice {
public:
    // A number from 0 to nSides - 1.
    std::uint32_t operator()(std::uint32_t nSides) {
        return static_cast<std::uint32_t>(m_Random() % nSides);
    }

private:
    std::mt19937 m_Random{20261123};
};

// Payloads by handle, of what was posted and neither fetched nor dropped.
class QueueModel : public testing::Test {
protected:
    void Post() {
        const std::string strPayload(1 + m_Dice(400), static_cast<char>(m_Dice(256)));
        const bool bRoom = m_Waiting.size() < CMsgQueue::kSmallSlots;
        const int nResult = m_Queue.PostMsg(m_Pipe.WriteEnd(), 7, strPayload.data(),
                                            static_cast<std::int32_t>(strPayload.size()));
        const std::vector<PipeMsg> msgs = m_Pipe.Drain();
        ASSERT_EQ(nResult, bRoom ? 1 : 0);
        ASSERT_EQ(msgs.size(), bRoom ? 1U : 0U);
        if (bRoom) {
            const auto nHandle = static_cast<std::int32_t>(msgs[0].wParam);
            ASSERT_TRUE(m_Waiting.emplace(nHandle, strPayload).second) << nHandle;
            ASSERT_EQ(msgs[0].lParam, 7);
        }
    }
    void PostIntoFullPipe() {
        m_Pipe.Fill();
        ASSERT_EQ(m_Queue.PostMsg(m_Pipe.WriteEnd(), 7, "x", 1), 0);
        m_Pipe.Drain();
    }
    void Fetch(std::int32_t nHandle) {
        const auto waiting = m_Waiting.find(nHandle);
        const bool bWaits = waiting != m_Waiting.end();
        ASSERT_EQ(m_Queue.GetMsgLen(nHandle),
                  bWaits ? static_cast<std::int32_t>(waiting->second.size()) : -1);
        MsgPayload payload;
        const bool bFetched =
            m_Dice(4) == 0 ? m_Queue.FreeMsg(nHandle) == 1 : m_Queue.TakeMsg(nHandle, payload) == 1;
        ASSERT_EQ(bFetched, bWaits);
        if (bWaits) {
            ASSERT_TRUE(payload.size() == 0 ||
                        std::equal(payload.begin(), payload.end(), waiting->second.begin(),
                                   waiting->second.end(), [](std::uint8_t a, char b) {
                                       return a == static_cast<std::uint8_t>(b);
                                   }));
            m_Waiting.erase(waiting);
        }
    }
    // A pass of the cleaner, as it will be in two minutes or as it is now.
    void Clean(bool bLater) {
        m_Queue.ExpireOld(MonotonicMs() + (bLater ? 2 * CMsgQueue::kExpiryMs : 0));
        for (std::int32_t i = 0; i < CMsgQueue::kSmallSlotsPerPass; ++i) {
            m_nCleanPos = m_nCleanPos % CMsgQueue::kSmallSlots + 1;
            if (bLater) {
                std::erase_if(m_Waiting, [this](const auto& entry) {
                    return entry.first % (1 << CMsgQueue::kSlotBits) == m_nCleanPos;
                });
            }
        }
    }

    Dice m_Dice;
    CTestPipe m_Pipe;
    CMsgQueue m_Queue;
    std::map<std::int32_t, std::string> m_Waiting;
    std::int32_t m_nCleanPos = 0;  // slot that the cleaner looked at last
};

TEST_F(QueueModel, HoldsWhatWasPostedUntilItIsFetchedOrOld) {
    for (int nStep = 0; nStep < 1'000'000 && !HasFatalFailure(); ++nStep) {
        // Times of more posts and times of more fetches, so that the queue gets full and empty.
        const bool bFilling = nStep / 20'000 % 2 == 0;
        const std::uint32_t nWhat = m_Dice(1000);
        if (nWhat == 0) {
            PostIntoFullPipe();
        } else if (nWhat <= 2) {
            Clean(m_Dice(2) == 0);
        } else if (nWhat < (bFilling ? 700U : 300U)) {
            Post();
        } else {
            const std::int32_t nNear = static_cast<std::int32_t>(
                m_Dice(CMsgQueue::kSmallSlots + 2) + m_Dice(4) * (1U << CMsgQueue::kSlotBits));
            const auto next = m_Waiting.lower_bound(nNear);
            Fetch(m_Dice(8) == 0 || next == m_Waiting.end() ? nNear : next->first);
        }
        ASSERT_EQ(m_Queue.GetSmallFree(),
                  CMsgQueue::kSmallSlots - static_cast<std::int32_t>(m_Waiting.size()));
    }
}

class TimerModel : public testing::Test {
protected:
    struct Timer {
        TimerHandle hTimer;
        std::uint32_t nId;
        std::int64_t nInterval;
        std::int64_t nElapsed;
        bool bOnce;
        bool bSilent;  // without descriptor
        bool bFired;
    };

    void Set() {
        Timer timer{{}, m_nNextId++, m_Dice(300), 0, m_Dice(3) == 0, m_Dice(4) == 0, false};
        timer.bSilent = timer.bSilent && !timer.bOnce;
        const int nFd = timer.bSilent ? 0 : m_Pipe.WriteEnd();
        const auto nInterval = static_cast<std::int32_t>(timer.nInterval);
        timer.hTimer = timer.bOnce ? m_Service.SetOneShotTimer(nFd, timer.nId, nInterval)
                                   : m_Service.SetTimer(nFd, timer.nId, nInterval);
        m_Timers.push_back(timer);
    }
    void Kill(std::size_t nAt) {
        m_Killed = m_Timers[nAt].hTimer;
        m_Service.KillTimer(m_Timers[nAt].hTimer, m_Timers[nAt].nId + 1);  // another's: nothing
        m_Service.KillTimer(m_Timers[nAt].hTimer, m_Timers[nAt].nId);
        m_Timers.erase(m_Timers.begin() + static_cast<std::ptrdiff_t>(nAt));
    }
    void Reset(std::size_t nAt) {
        ASSERT_EQ(m_Service.ResetTimer(m_Timers[nAt].hTimer), 1);
        m_Timers[nAt].nElapsed = 0;
        m_Timers[nAt].bFired = false;
    }
    void Look(std::size_t nAt) {
        bool bFired = false;
        ASSERT_EQ(m_Service.IsTimerFired(m_Timers[nAt].hTimer, bFired), 1);
        if (m_Timers[nAt].bSilent) {
            ASSERT_EQ(bFired, m_Timers[nAt].bFired);
        }
    }
    void Tick(std::int64_t nElapsed) {
        std::vector<std::uint32_t> expected;
        for (Timer& timer : m_Timers) {
            timer.nElapsed += nElapsed;
            if (timer.nElapsed < timer.nInterval) {
                continue;
            }
            timer.nElapsed = 0;
            timer.bFired = true;
            if (!timer.bSilent) {
                expected.push_back(timer.nId);
            }
        }
        std::erase_if(m_Timers, [](const Timer& t) { return t.bOnce && t.bFired; });
        m_Service.Tick(nElapsed);
        m_Stale = m_Killed;  // its record is gone from this tick on
        std::vector<std::uint32_t> posted;
        for (const PipeMsg& msg : m_Pipe.Drain()) {
            posted.push_back(msg.wParam);
        }
        std::sort(posted.begin(), posted.end());
        ASSERT_EQ(posted, expected);  // identifiers rise in the order set
    }

    Dice m_Dice;
    CTestPipe m_Pipe;
    CTimerService m_Service;
    std::vector<Timer> m_Timers;
    TimerHandle m_Killed;
    TimerHandle m_Stale;
    std::uint32_t m_nNextId = 1;
};

TEST_F(TimerModel, FireWhenTheirTimeHasElapsedAndNeverElse) {
    for (int nStep = 0; nStep < 1'000'000 && !HasFatalFailure(); ++nStep) {
        const std::uint32_t nWhat = m_Timers.empty() ? 0 : m_Dice(8);
        const std::size_t nAt =
            m_Timers.empty() ? 0 : m_Dice(static_cast<std::uint32_t>(m_Timers.size()));
        if (nWhat <= 1 && m_Timers.size() < 40) {
            Set();
        } else if (nWhat == 2) {
            Kill(nAt);
        } else if (nWhat == 3) {
            Reset(nAt);
        } else if (nWhat == 4) {
            Look(nAt);
        } else if (nWhat == 5) {
            bool bFired = false;
            ASSERT_EQ(m_Service.ResetTimer(m_Stale), 0);
            ASSERT_EQ(m_Service.IsTimerFired(m_Stale, bFired), 0);
        } else {
            Tick(m_Dice(30));
        }
    }
}

}  // namespace
