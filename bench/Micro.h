// Single calls of the client library and of what the service does for each record, measured by
// Google Benchmark.
#pragma once

#include <string>
#include <vector>

// Runs them with the arguments of that library, such as --benchmark_filter=Queue. The exit status.
int RunMicro(const std::vector<std::string>& arguments);
