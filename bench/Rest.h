// What a process costs while nothing is asked of it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Measure.h"

// How long a program is left alone after its start before its rest is measured.
constexpr std::int64_t kSettleNs = 500'000'000;

// Memory of a process in KiB: "rss", "pss" and "pss_anonymous".
Json MemoryOf(pid_t nPid);

// Looks at a process from its construction on.
class CIdleMeter {
public:
    explicit CIdleMeter(pid_t nPid);

    // Since then: "cpu_percent" of one processor, "wake_ups_per_s", and both by "threads".
    Json Read() const;

private:
    pid_t m_nPid;
    std::int64_t m_nBegin;
    std::int64_t m_nCpuNs;
    std::vector<ThreadUse> m_Before;
};
