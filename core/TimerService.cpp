#include "core/TimerService.h"

#include <algorithm>
#include <new>
#include <utility>

#include "core/Process.h"
#include "core/ThreadMsg.h"
#include "support/MonoClock.h"

CTimerService g_TimerService;

namespace {

constexpr std::int64_t kTickMs = 10;
constexpr std::int64_t kLongestSleepMs = 60000;  // when there is no timer at all

}  // namespace

struct CTimerService::TimerRecord {
    // Moves the timer on. False when it has ended: killed, or expired and not periodic.
    bool Advance(std::int64_t nElapsedMs);
    void Restart() { nRemain = nInterval; }
    [[nodiscard]] std::int64_t MsToItsTick() const { return bKilled ? kLongestSleepMs : nRemain; }

    std::int32_t nFd;        // write end of the owner's pipe; 0: bFired is set instead
    std::uint32_t nTimerID;  // the owner's name for it
    std::int32_t nInterval;  // ms
    std::uint32_t nParam;    // the owner's value
    Callback pfnCallback;    // may be null
    bool bPeriodic;
    std::int64_t nRemain = nInterval;  // ms left until expiry
    bool bKilled = false;              // ends at the next tick
    bool bFired = false;
    std::uint64_t nNumber = 0;             // of its handle
    std::unique_ptr<TimerRecord> pNext{};  // the next older timer
};

bool CTimerService::TimerRecord::Advance(std::int64_t nElapsedMs) {
    if (bKilled) {
        return false;
    }
    nRemain -= nElapsedMs;
    if (nRemain > 0) {
        return true;
    }
    if (nFd == 0) {
        bFired = true;
    } else {
        PostPipeMsg(nFd, MSG_TIMER, nTimerID, nParam);  // a full pipe loses this expiry, no more
        if (pfnCallback != nullptr) {
            pfnCallback();
        }
    }
    Restart();  // what the tick came late is not made up for
    return bPeriodic;
}

CTimerService::CTimerService() = default;

CTimerService::~CTimerService() {
    StopTimerThread();
}

TimerHandle CTimerService::SetTimer(int nFd, std::uint32_t nTimerID, std::int32_t nInterval,
                                    std::uint32_t nParam, Callback pfnCallback) {
    constexpr bool kPeriodic = true;
    return Link(std::unique_ptr<TimerRecord>(
        new (std::nothrow) TimerRecord{nFd, nTimerID, nInterval, nParam, pfnCallback, kPeriodic}));
}

TimerHandle CTimerService::SetOneShotTimer(int nFd, std::uint32_t nTimerID, std::int32_t nDelay,
                                           std::uint32_t nParam) {
    constexpr bool kPeriodic = false;
    return Link(std::unique_ptr<TimerRecord>(
        new (std::nothrow) TimerRecord{nFd, nTimerID, nDelay, nParam, nullptr, kPeriodic}));
}

void CTimerService::KillTimer(TimerHandle hTimer, std::uint32_t nTimerID) {
    const CLockGuard guard(m_mtxList);
    TimerRecord* const pRecord = Find(hTimer);
    if (pRecord != nullptr && pRecord->nTimerID == nTimerID) {
        Kill(*pRecord);
    }
}

void CTimerService::KillTimerByHandle(TimerHandle hTimer) {
    const CLockGuard guard(m_mtxList);
    TimerRecord* pRecord = Find(hTimer);
    if (pRecord != nullptr) {
        Kill(*pRecord);
    }
}

int CTimerService::IsTimerFired(TimerHandle hTimer, bool& bFired) const {
    const CLockGuard guard(m_mtxList);
    const TimerRecord* pRecord = Find(hTimer);
    if (pRecord == nullptr) {
        return 0;
    }
    bFired = pRecord->bFired;
    return 1;
}

int CTimerService::ResetTimer(TimerHandle hTimer) {
    const CLockGuard guard(m_mtxList);
    TimerRecord* pRecord = Find(hTimer);
    if (pRecord == nullptr) {
        return 0;
    }
    pRecord->Restart();
    pRecord->nRemain += MsSinceTick();
    pRecord->bFired = false;
    return 1;
}

int CTimerService::StartTimerThread() {
    const CLockGuard guard(m_mtxThread);
    if (m_bRun) {
        return 1;
    }
    {
        const CLockGuard listGuard(m_mtxList);
        if (!m_Sleeper.Open()) {
            return 0;
        }
        m_nLastTickMs = MonotonicMs();  // before a timer is set with regard to it
    }
    m_bRun = true;  // before the thread looks at it
    if (StartThread(m_thread, "logd.timer", ThreadBody, this) != 0) {
        m_bRun = false;
        return 0;
    }
    return 1;
}

int CTimerService::StopTimerThread() {
    const CLockGuard guard(m_mtxThread);
    if (m_bRun.exchange(false)) {
        m_Sleeper.Wake();
        pthread_join(m_thread, nullptr);
    }
    ReleaseAll();
    return 0;
}

void CTimerService::Tick(std::int64_t nElapsedMs) {
    const CLockGuard guard(m_mtxList);
    AdvanceAll(nElapsedMs);
}

void CTimerService::AdvanceAll(std::int64_t nElapsedMs) {
    std::unique_ptr<TimerRecord>* ppRecord = &m_pHead;
    while (*ppRecord != nullptr) {
        if ((*ppRecord)->Advance(nElapsedMs)) {
            ppRecord = &(*ppRecord)->pNext;
        } else {
            *ppRecord = std::move((*ppRecord)->pNext);
        }
    }
}

void* CTimerService::ThreadBody(void* pService) {
    static_cast<CTimerService*>(pService)->ThreadLoop();
    return nullptr;
}

// Puts a new timer in front and makes its handle; a null record gives the null handle.
TimerHandle CTimerService::Link(std::unique_ptr<TimerRecord> pRecord) {
    if (pRecord == nullptr) {
        return {};
    }
    const CLockGuard guard(m_mtxList);
    pRecord->nNumber = ++m_nLastNumber;
    pRecord->nRemain += MsSinceTick();
    pRecord->pNext = std::move(m_pHead);
    m_pHead = std::move(pRecord);
    WakeIfDueSooner();
    return TimerHandle(m_nLastNumber);
}

CTimerService::TimerRecord* CTimerService::Find(TimerHandle hTimer) const {
    TimerRecord* pRecord = m_pHead.get();
    while (pRecord != nullptr && pRecord->nNumber != hTimer.m_nNumber) {
        pRecord = pRecord->pNext.get();
    }
    return pRecord;
}

// It goes with the next tick that there is for another's sake.
void CTimerService::Kill(TimerRecord& record) {
    record.bKilled = true;
}

void CTimerService::WakeIfDueSooner() {
    if (NextTickMs() < m_nPlannedTickMs) {
        m_Sleeper.Wake();
    }
}

// What the next tick will count as elapsed although the timer that starts now was not there. None
// while no thread ticks.
std::int64_t CTimerService::MsSinceTick() const {
    return m_bRun ? MonotonicMs() - m_nLastTickMs : 0;
}

void CTimerService::ReleaseAll() {
    const CLockGuard guard(m_mtxList);
    while (m_pHead != nullptr) {
        m_pHead = std::move(m_pHead->pNext);
    }
}

void CTimerService::ThreadLoop() {
    while (m_bRun) {
        m_Sleeper.Sleep(TickIfDue());
    }
}

// Returns the milliseconds until the tick that comes next.
std::int64_t CTimerService::TickIfDue() {
    const CLockGuard guard(m_mtxList);
    const std::int64_t nNowMs = MonotonicMs();
    if (nNowMs >= NextTickMs()) {
        AdvanceAll(nNowMs - m_nLastTickMs);
        m_nLastTickMs = nNowMs;
    }
    m_nPlannedTickMs = NextTickMs();
    return m_nPlannedTickMs - nNowMs;
}

// When something can happen next. Ticks before that are slept through: they would only wake an idle
// machine a hundred times a second. Timers that are due within a tick of the first share its tick.
std::int64_t CTimerService::NextTickMs() const {
    std::int64_t nFirstMs = kLongestSleepMs;
    for (const TimerRecord* pRecord = m_pHead.get(); pRecord != nullptr;
         pRecord = pRecord->pNext.get()) {
        nFirstMs = std::min(nFirstMs, pRecord->MsToItsTick());
    }
    std::int64_t nTickMs = std::max(nFirstMs, kTickMs);
    for (const TimerRecord* pRecord = m_pHead.get(); pRecord != nullptr;
         pRecord = pRecord->pNext.get()) {
        if (pRecord->MsToItsTick() <= nFirstMs + kTickMs) {
            nTickMs = std::max(nTickMs, pRecord->MsToItsTick());
        }
    }
    return m_nLastTickMs + nTickMs;
}
