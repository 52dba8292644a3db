#include "core/Progress.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace {

std::atomic<bool> g_bSilent{false};

}  // namespace

void InitProgress() {
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

void SilenceProgress() {
    g_bSilent.store(true, std::memory_order_relaxed);
}

void Progress(const char* szFormat, ...) {
    if (g_bSilent.load(std::memory_order_relaxed)) {
        return;
    }
    std::va_list args;
    va_start(args, szFormat);
    std::vprintf(szFormat, args);
    va_end(args);
}

void FlushProgress() {
    std::fflush(stdout);
}
