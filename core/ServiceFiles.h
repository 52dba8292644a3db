// Where the files of the service are, below the root (support/SystemPath.h), and what a day's file
// is called. Constants and names only.
//
// Threads: any; nothing is shared.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

constexpr const char* kConfigurationFile = "/etc/tarvik/log/log.conf";
constexpr const char* kLogDirectory = "/log/";         // today's file is there
constexpr const char* kHistoryDirectory = "/hislog/";  // the files of earlier days are

// "20261122.log": the name of the file of a day, in four digits and two each.
inline std::string DayFileName(int nYear, int nMonth, int nDay) {
    char szName[48];  // whatever the numbers are
    std::snprintf(szName, sizeof(szName), "%04d%02d%02d.log", nYear, nMonth, nDay);
    return szName;
}

// Whether strName has the form of such a name. Names of days sort as days do.
inline bool IsDayFileName(std::string_view strName) {
    constexpr std::size_t kDateDigits = 8;
    return strName.size() > kDateDigits && strName.substr(kDateDigits) == ".log" &&
           strName.find_first_not_of("0123456789") == kDateDigits;
}
