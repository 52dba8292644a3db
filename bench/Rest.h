// What a process costs while nothing is asked of it.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "bench/Measure.h"

// How long a program is left alone after its start before its rest is measured.
constexpr std::int64_t kSettleNs = 500'000'000;

struct Memory {
    std::int64_t nResidentKib = 0;
    std::int64_t nSharedOutKib = 0;  // of shared pages only the process's share counts
};
Memory MemoryOf(pid_t nPid);

struct IdleCost {
    double dCpuPercent = 0;  // of one processor
    double dWakeUps = 0;     // of all threads, a second
};

// Looks at a process from its construction on.
class CIdleMeter {
public:
    explicit CIdleMeter(pid_t nPid);

    IdleCost Read() const;  // since then

private:
    pid_t m_nPid;
    std::int64_t m_nBegin;
    std::int64_t m_nCpuNs;
    std::int64_t m_nWakeUps;
};
