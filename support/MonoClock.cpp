#include "support/MonoClock.h"

#include <ctime>

std::int64_t MonotonicMs() {
    std::timespec tsNow{};
    clock_gettime(CLOCK_MONOTONIC, &tsNow);
    return static_cast<std::int64_t>(tsNow.tv_sec) * 1000 + tsNow.tv_nsec / 1000000;
}
