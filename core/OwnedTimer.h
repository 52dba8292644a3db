// A timer that ends with its owner: started, stopped and, at the latest by the destructor, killed.
//
// Threads: the owner's. The expiry arrives in the owner's pipe, possibly once more after Stop().
#pragma once

#include <cstdint>

#include "core/TimerService.h"

class COwnedTimer {
public:
    COwnedTimer() = default;
    ~COwnedTimer() { Stop(); }
    COwnedTimer(const COwnedTimer&) = delete;
    COwnedTimer& operator=(const COwnedTimer&) = delete;

    // Stops what runs and starts a periodic timer: nFd, the write end of the owner's pipe, gets
    // MSG_TIMER with nTimerID every nInterval ms. Without memory for it there is no timer.
    void Start(int nFd, std::uint32_t nTimerID, std::int32_t nInterval) {
        Stop();
        m_nTimerID = nTimerID;
        m_pTimer = g_TimerService.SetTimer(nFd, nTimerID, nInterval);
    }

    void Stop() {
        g_TimerService.KillTimer(m_pTimer, m_nTimerID);
        m_pTimer = {};
    }

    // True when this timer runs and has that identifier: an expiry that comes late is told by it.
    bool Is(std::uint32_t nTimerID) const { return m_pTimer && m_nTimerID == nTimerID; }

private:
    TimerHandle m_pTimer;
    std::uint32_t m_nTimerID = 0;
};
