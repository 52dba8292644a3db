// How the cost of a stored record grows with what stands around it.
#pragma once

#include "bench/BenchMain.h"

// Microseconds of processor time of a record, of the whole service and of its intake thread alone:
// with 1 to 100 log clients that send in turn, with 0 to 5 upload sessions that want every record,
// and with a day's file from empty to wrapped.
Json MeasureGrowth(const BenchOptions& options);
