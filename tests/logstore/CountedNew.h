// Counts what chosen threads allocate with new.
#pragma once

#include <atomic>

extern thread_local bool t_bCountsNew;          // of the calling thread; false at first
extern std::atomic<int> g_nCountedAllocations;  // so far, in the whole process
