// Time that really elapsed, whatever happens to the wall clock: an appliance boots in 1970 and
// jumps by decades when it learns the date.
//
// Threads: any.
#pragma once

#include <cstdint>

// Milliseconds since an arbitrary start; never goes back.
std::int64_t MonotonicMs();

// The same in microseconds.
std::int64_t MonotonicUs();
