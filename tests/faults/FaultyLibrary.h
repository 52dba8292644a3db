// What a test and the library that it puts in front of the service's C library tell each other, in
// a file that both have mapped.
#pragma once

#include <atomic>
#include <cstdint>

struct FaultPlan {
    char szThread[16];                       // whose allocations are counted
    std::atomic<std::int32_t> nCountdown;    // the allocation that fails: 1 for the next; 0: none
    std::atomic<std::int32_t> nFailed;       // how many have failed
    std::atomic<std::int32_t> nHoldFlushes;  // not 0: fsync does not return
    std::atomic<std::int32_t> nHeld;         // calls of it that were held
};
