// The benchmarks of tarvik-bench. Each measures something of the real service and adds its rows to
// a report. All throw std::runtime_error when there is nothing to measure.
#pragma once

#include "bench/Bench.h"
#include "bench/Report.h"

// Records of several loads, beside bare loops and log daemons.
void MeasureCompare(const BenchOptions& options, CReport& report);

// Start, stop, memory and what it costs when nothing happens.
void MeasureRest(const BenchOptions& options, CReport& report);

// Real-time records on their way to the console.
void MeasureConsole(const BenchOptions& options, CReport& report);

// Stored files and live records on their way to receivers.
void MeasureUpload(const BenchOptions& options, CReport& report);

// How the cost of a stored record grows with what stands around it.
void MeasureGrowth(const BenchOptions& options, CReport& report);

// tarvik-log show: a full day, many days, following.
void MeasureShow(const BenchOptions& options, CReport& report);
