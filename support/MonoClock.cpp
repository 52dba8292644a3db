#include "support/MonoClock.h"

#include <ctime>

std::int64_t MonotonicMs() {
    return MonotonicUs() / 1000;
}

std::int64_t MonotonicUs() {
    std::timespec tsNow{};
    clock_gettime(CLOCK_MONOTONIC, &tsNow);
    return static_cast<std::int64_t>(tsNow.tv_sec) * 1'000'000 + tsNow.tv_nsec / 1000;
}
