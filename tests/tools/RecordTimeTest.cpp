// The times that people type, against the moment that they mean.
#include "tools/RecordTime.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace {

// It is Sunday, 29 March 2026, 12:30:15 summer time, which began at 2:00 that day.
constexpr std::time_t kNow = 1774780215;
constexpr TimeStamp kNone = 0;

struct TimeCase {
    const char* szText;
    TimeStamp nMeant;  // kNone: no time
};

TEST(RecordTime, IsUnderstoodAsPeopleTypeIt) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const TimeCase cases[] = {
        {"now", 20260329123015},
        {"today", 20260329000000},
        {"yesterday", 20260328000000},
        {" yesterday 23:59 ", 20260328235900},
        {"2026-11-22", 20261122000000},
        {"2026-11-22 14:00", 20261122140000},
        {"2026-11-22T14:00:05", 20261122140005},
        {"2024-02-29 23:59:59", 20240229235959},
        {"14:00", 20260329140000},
        {"00:00:01", 20260329000001},
        {"1 s ago", 20260329123014},
        {"10 min ago", 20260329122015},
        {"10min ago", 20260329122015},
        {"12 hours ago", 20260328233015},  // over the hour that was left out
        {"2 d ago", 20260327113015},
        {"1 week ago", 20260322113015},
        {"", kNone},
        {"soon", kNone},
        {"ago", kNone},
        {"min ago", kNone},
        {"-5 min ago", kNone},
        {"5 fortnights ago", kNone},
        {"99999999999999999999 s ago", kNone},
        {"2026-02-29", kNone},
        {"2026-13-01", kNone},
        {"2026-11-22 ", 20261122000000},
        {"2026-11-22x14:00", kNone},
        {"2026-11-22 24:00", kNone},
        {"2026-11-22 14:00:60", kNone},
        {"14:60", kNone},
        {"14:00:05:06", kNone},
        {"today14:00", kNone},
        {"now 14:00", kNone},
    };
    for (const TimeCase& c : cases) {
        EXPECT_EQ(ParseTime(c.szText, kNow).value_or(kNone), c.nMeant) << "'" << c.szText << "'";
    }
}

}  // namespace
