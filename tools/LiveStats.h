// tarvik-log stats --live: what the intake of a running service does, second by second.
//
// Threads: the caller's.
#pragma once

#include <cstdint>

struct LiveStatsOptions {
    std::uint16_t wPort = 0;  // UDP port of the service
    double dSeconds = 0;      // how long to look; 0: until SIGINT or SIGTERM
    bool bJson = false;
};

// Prints a line each second and one with the sums at the end. Returns the exit status. Throws
// std::runtime_error when no service has the port open, at the start or later.
int RunLiveStats(const LiveStatsOptions& options);
