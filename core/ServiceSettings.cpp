#include "core/ServiceSettings.h"

std::int32_t g_nSTPort = 0;
std::int32_t g_nCmdTimerInterval[4] = {};
std::int32_t g_nUploadTimerInterval[3] = {};
