// How long a sample program runs: for so many seconds, or until SIGINT or SIGTERM.
//
// Threads: one object a process, used by one thread.
#pragma once

#include <cstdint>

class CRunTime {
public:
    // Starts the time and catches the two signals. dSeconds 0: no limit.
    explicit CRunTime(double dSeconds);

    bool IsOver() const;

private:
    std::int64_t m_nEndMs;  // on the monotonic clock
};
