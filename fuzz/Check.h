// What must hold whatever the input: a promise that is broken ends the target like a crash, so that
// the fuzzer keeps the input.
//
// Threads: any.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void Check(bool bHolds, const char* szPromise) {
    if (!bHolds) {
        std::fprintf(stderr, "broken promise: %s\n", szPromise);
        std::abort();
    }
}
