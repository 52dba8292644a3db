// What showing a record costs at least: a line formatted, and sent over a loopback TCP connection
// 1024 bytes at a time.
#pragma once

#include <cstdint>

struct BareRelayResult {
    double dLinesPerSecond = 0;
    double dCpuUsPerLine = 0;  // of the sending thread
};

// Formats and sends for dSeconds as fast as a thread that reads takes it. Throws std::system_error
// when there is no connection to be had.
BareRelayResult RunBareRelay(double dSeconds);
