// Millisecond timers that arrive as MSG_TIMER in the pipe of the thread that set them, with the
// timer's identifier in wParam and its parameter in lParam. One service thread ticks every 10 ms or
// a little later, but sleeps through the ticks at which no timer can expire. It counts the time
// that really elapsed, so a step of the wall clock fires and stalls nothing. It promises no
// precision below a tick, and an expiry that meets a full pipe is lost.
//
// Threads: any may set, kill, reset and ask. Messages and callbacks come from the service thread.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "core/Lock.h"
#include "support/Sleeper.h"

// Names one timer for as long as the process runs: no handle is ever given twice, so one that
// outlived its timer names nothing. A default-made handle is the null handle.
class TimerHandle {
public:
    TimerHandle() = default;
    explicit operator bool() const { return m_nNumber != 0; }  // false: the null handle
    bool operator==(const TimerHandle&) const = default;

private:
    friend class CTimerService;
    explicit TimerHandle(std::uint64_t nNumber) : m_nNumber(nNumber) {}

    std::uint64_t m_nNumber = 0;
};

class CTimerService {
public:
    // Called on the service thread while the list of timers is locked: it must not call the
    // service.
    using Callback = void (*)();

    CTimerService();
    virtual ~CTimerService();  // does what StopTimerThread does
    CTimerService(const CTimerService&) = delete;
    CTimerService& operator=(const CTimerService&) = delete;

    // Arms a timer that expires every nInterval ms, at most once a tick. nFd: write end of the
    // owner's pipe; 0: nothing is posted, IsTimerFired() tells. pfnCallback, if any, is called
    // after each message. Returns the null handle when memory is exhausted.
    TimerHandle SetTimer(int nFd, std::uint32_t nTimerID, std::int32_t nInterval,
                         std::uint32_t nParam = 0, Callback pfnCallback = nullptr);

    // The same for a timer that expires once, after nDelay ms, and is gone then.
    TimerHandle SetOneShotTimer(int nFd, std::uint32_t nTimerID, std::int32_t nDelay,
                                std::uint32_t nParam = 0);

    // Stops a timer: from the next tick on nothing comes from it, and that tick, at most a minute
    // later, ends it. A message
    // that was posted before may still wait in the pipe. Does nothing for a handle that names no
    // live timer, or one with another identifier.
    void KillTimer(TimerHandle hTimer, std::uint32_t nTimerID);
    void KillTimerByHandle(TimerHandle hTimer);

    // Tells in bFired whether a timer without descriptor has expired since it was set or reset.
    // Returns 1; or 0, and bFired is untouched, when hTimer names no live timer.
    [[nodiscard]] int IsTimerFired(TimerHandle hTimer, bool& bFired) const;

    // Starts the timer's time anew. Returns 1, or 0 when hTimer names no live timer.
    int ResetTimer(TimerHandle hTimer);

    // Starts the service thread. Call it in the process that keeps running: a thread does not
    // survive a fork. Returns 1 when it runs, 0 when it cannot be created.
    [[nodiscard]] int StartTimerThread();

    // Ends the service thread, if it runs, and waits for it; then no timer is left. Not to be
    // called from a callback. Returns 0.
    int StopTimerThread();

    // One tick: moves every timer on by nElapsedMs, which is 0 or more. For those who have no
    // service thread.
    void Tick(std::int64_t nElapsedMs);

private:
    struct TimerRecord;

    static void* ThreadBody(void* pService);

    TimerHandle Link(std::unique_ptr<TimerRecord> pRecord);
    TimerRecord* Find(TimerHandle hTimer) const REQUIRES(m_mtxList);
    static void Kill(TimerRecord& record);
    void WakeIfDueSooner() REQUIRES(m_mtxList);
    std::int64_t MsSinceTick() const REQUIRES(m_mtxList);
    void AdvanceAll(std::int64_t nElapsedMs) REQUIRES(m_mtxList);
    std::int64_t NextTickMs() const REQUIRES(m_mtxList);
    void ReleaseAll();
    void ThreadLoop();
    std::int64_t TickIfDue();

    std::atomic<bool> m_bRun{false};  // the service thread runs while it is set
    std::unique_ptr<TimerRecord> m_pHead GUARDED_BY(m_mtxList);  // newest timer; each owns the next
    std::uint64_t m_nLastNumber GUARDED_BY(m_mtxList) = 0;       // of the newest handle
    std::int64_t m_nLastTickMs GUARDED_BY(m_mtxList) = 0;        // of the monotonic clock
    std::int64_t m_nPlannedTickMs GUARDED_BY(m_mtxList) = 0;     // the thread sleeps until then
    mutable CLock m_mtxList;  // guards the live timers; held for a whole tick
    CSleeper m_Sleeper;       // of the service thread; a timer that is due sooner wakes it
    CLock m_mtxThread;        // one start or stop of the service thread at a time
    pthread_t m_thread GUARDED_BY(m_mtxThread) = {};  // valid while m_bRun is set
};

extern CTimerService g_TimerService;
