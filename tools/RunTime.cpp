#include "tools/RunTime.h"

#include <atomic>
#include <csignal>
#include <limits>

#include "core/MonoClock.h"

namespace {

std::atomic<bool> g_bStopped{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void OnStopSignal(int /*nSignal*/) {
    g_bStopped = true;
}

}  // namespace

CRunTime::CRunTime(double dSeconds)
    : m_nEndMs(dSeconds > 0 ? MonotonicMs() + static_cast<std::int64_t>(dSeconds * 1000)
                            : std::numeric_limits<std::int64_t>::max()) {
    struct sigaction action {};
    action.sa_handler = OnStopSignal;
    for (const int nSignal : {SIGINT, SIGTERM}) {
        sigaction(nSignal, &action, nullptr);
    }
}

bool CRunTime::IsOver() const {
    return g_bStopped || MonotonicMs() >= m_nEndMs;
}
