// Reader of a day's file: its header and its records in the order written.
#pragma once

#include <string>
#include <vector>

#include "logstore/LogRecord.h"

struct DayFile {
    LogFileHeader header{};
    std::vector<LogRecord> records;  // oldest first
};

// Reads a day's file. Throws std::runtime_error, naming path and reason, when it cannot be read or
// is none.
DayFile ReadDayFile(const std::string& strPath);
