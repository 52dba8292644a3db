// The time stamp of a record as a number that can be compared, and the times that people type.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "logstore/LogRecord.h"

// A local time as the decimal number YYYYMMDDhhmmss: the later, the larger.
using TimeStamp = std::uint64_t;

constexpr TimeStamp MakeStamp(unsigned nYear, unsigned nMonth, unsigned nDay, unsigned nHour,
                              unsigned nMinute, unsigned nSecond) {
    const TimeStamp nDate = (TimeStamp{nYear} * 100 + nMonth) * 100 + nDay;
    return ((nDate * 100 + nHour) * 100 + nMinute) * 100 + nSecond;
}

// Also of a stamp that is no real time: the client's bytes are taken as they are.
inline TimeStamp StampOf(const LogRecord& record) {
    return MakeStamp(record.wYear, record.byMonth, record.byDay, record.byHour, record.byMinute,
                     record.bySecond);
}

// What stands in --help behind the options that take a time.
extern const char* const kTimeForms;

// The moment that strText names when it is tNow: "now", "10 min ago", or a day ("2026-11-22",
// "today", "yesterday"), a time of day ("14:00", "14:00:05") or a day and a time; a day alone is
// its midnight, a time alone is today's. Nothing when it is none of these.
std::optional<TimeStamp> ParseTime(const std::string& strText, std::time_t tNow);
