// Values that main sets before the first worker starts and that the workers only read.
#pragma once

#include <cstdint>

extern std::int32_t g_nSTPort;               // TCP port of the management agent; low 16 bits count
extern std::int32_t g_nCmdTimerInterval[4];  // ms, timers 0 to 3 of the command link
extern std::int32_t g_nUploadTimerInterval[3];  // ms, timers 4 to 6 of an upload session
