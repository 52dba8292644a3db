// The day's files in the directories of the service.
//
// Threads: any; nothing is shared.
#pragma once

#include <string>
#include <vector>

#include "core/ServiceFiles.h"
#include "reading/Complaints.h"
#include "reading/DayStream.h"

struct DayEntry {
    std::string strPath;
    FileId id;  // none: gone since it was listed, or never looked at
};

// The day's files of kLogDirectory or kHistoryDirectory, oldest day first. Throws
// std::runtime_error, naming path and reason, when it cannot be read.
std::vector<DayEntry> DayFilesIn(const char* szDirectory);

// All days, oldest first: history, then today. A directory that cannot be read is complained of.
std::vector<DayEntry> AllDayFiles(CComplaints& complaints);

// The last part of a path.
std::string FileName(const std::string& strPath);
