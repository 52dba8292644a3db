// Values that main sets before the first worker starts and that the workers only read.
#pragma once

#include <cstdint>
#include <string>

extern std::int32_t g_nSTPort;               // TCP port of the management agent; low 16 bits count
extern std::int32_t g_nCmdTimerInterval[4];  // ms, timers 0 to 3 of the command link
extern std::int32_t g_nUploadTimerInterval[3];  // ms, timers 4 to 6 of an upload session

// The decimal number at the start of strText, read as atoi reads it (leading blanks, a sign, 0 when
// there are no digits), but held at the ends of the range of int instead of overflowing.
std::int32_t ParseInt(const std::string& strText);
