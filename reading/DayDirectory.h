// The day's files in the directories of the service.
//
// Threads: any; nothing is shared.
#pragma once

#include <string>
#include <vector>

#include "reading/Complaints.h"
#include "reading/DayStream.h"

extern const char* const kLogDirectory;      // "/log/", where today's file is
extern const char* const kHistoryDirectory;  // "/hislog/", where the files of earlier days are

struct DayEntry {
    std::string strPath;
    FileId id;  // none: gone since it was listed, or never looked at
};

// The day's files, YYYYMMDD.log, of one of these directories, oldest day first. Throws
// std::runtime_error, naming path and reason, when it cannot be read.
std::vector<DayEntry> DayFilesIn(const char* szDirectory);

// All days, oldest first: history, then today. A directory that cannot be read is complained of.
std::vector<DayEntry> AllDayFiles(CComplaints& complaints);

// The last part of a path.
std::string FileName(const std::string& strPath);
