#include "reading/RecordTime.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "support/Date.h"

const char* const kTimeForms =
    "\"2026-11-22 14:00:05\", \"2026-11-22\", \"14:00\", \"today\", \"yesterday 14:00\", "
    "\"10 min ago\" (s, min, h, d, w) or \"now\"";

namespace {

constexpr std::string_view kAgo = " ago";
constexpr int kDecimalDigits = 9;  // of an amount of time; more would be before the calendar

struct Unit {
    std::string_view strName;
    std::int64_t nSeconds;  // not std::time_t, where 32 bits of it overflow below
};

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kWeek = 7 * kDay;

constexpr std::array<Unit, 19> kUnits = {{{"s", 1},
                                          {"sec", 1},
                                          {"second", 1},
                                          {"seconds", 1},
                                          {"m", kMinute},
                                          {"min", kMinute},
                                          {"mins", kMinute},
                                          {"minute", kMinute},
                                          {"minutes", kMinute},
                                          {"h", kHour},
                                          {"hour", kHour},
                                          {"hours", kHour},
                                          {"d", kDay},
                                          {"day", kDay},
                                          {"days", kDay},
                                          {"w", kWeek},
                                          {"week", kWeek},
                                          {"weeks", kWeek},
                                          {"hr", kHour}}};

TimeStamp StampOf(const std::tm& tmTime) {
    return MakeStamp(static_cast<unsigned>(tmTime.tm_year + 1900),
                     static_cast<unsigned>(tmTime.tm_mon + 1),
                     static_cast<unsigned>(tmTime.tm_mday), static_cast<unsigned>(tmTime.tm_hour),
                     static_cast<unsigned>(tmTime.tm_min), static_cast<unsigned>(tmTime.tm_sec));
}

std::string_view WithoutBlanks(std::string_view strText) {
    while (!strText.empty() && strText.front() == ' ') {
        strText.remove_prefix(1);
    }
    while (!strText.empty() && strText.back() == ' ') {
        strText.remove_suffix(1);
    }
    return strText;
}

// "10 min ago"
std::optional<TimeStamp> ParseAgo(std::string_view strText, std::time_t tNow) {
    if (!strText.ends_with(kAgo)) {
        return std::nullopt;
    }
    strText.remove_suffix(kAgo.size());
    std::int64_t nAmount = 0;
    const auto [pEnd, error] =
        std::from_chars(strText.data(), strText.data() + strText.size(), nAmount);
    const auto nDigits = static_cast<std::size_t>(pEnd - strText.data());
    if (error != std::errc() || nAmount < 0 || nDigits > kDecimalDigits) {
        return std::nullopt;
    }
    const std::string_view strUnit = WithoutBlanks(strText.substr(nDigits));
    for (const Unit& unit : kUnits) {
        if (unit.strName == strUnit) {
            const std::int64_t nBack = nAmount * unit.nSeconds;
            return nBack <= tNow ? StampOf(LocalTime(tNow - static_cast<std::time_t>(nBack)))
                                 : TimeStamp{0};
        }
    }
    return std::nullopt;
}

bool IsRealDate(const std::tm& tmDay) {
    using std::chrono::day;
    using std::chrono::month;
    using std::chrono::year;
    return std::chrono::year_month_day(year(tmDay.tm_year + 1900),
                                       month(static_cast<unsigned>(tmDay.tm_mon + 1)),
                                       day(static_cast<unsigned>(tmDay.tm_mday)))
        .ok();
}

// Sets the date to that of nDaysBack days ago, whatever daylight saving did in between.
void GoBack(std::tm& tmDay, int nDaysBack) {
    tmDay.tm_mday -= nDaysBack;
    tmDay.tm_hour = 12;
    std::mktime(&tmDay);
}

// Takes the day at the start of strText into tmDay and off strText. False: there is none.
bool TakeDay(std::string& strText, std::tm& tmDay) {
    constexpr std::string_view kToday = "today";
    constexpr std::string_view kYesterday = "yesterday";
    if (strText.starts_with(kToday)) {
        strText.erase(0, kToday.size());
        return true;
    }
    if (strText.starts_with(kYesterday)) {
        GoBack(tmDay, 1);
        strText.erase(0, kYesterday.size());
        return true;
    }
    const char* pEnd = strptime(strText.c_str(), "%Y-%m-%d", &tmDay);
    if (pEnd == nullptr || !IsRealDate(tmDay)) {
        return false;
    }
    strText.erase(0, static_cast<std::size_t>(pEnd - strText.c_str()));
    return true;
}

// The whole of strText as a time of day.
bool TakeTime(const std::string& strText, std::tm& tmTime) {
    constexpr int kLastSecond = 59;  // strptime would take a leap second
    for (const char* szForm : {"%H:%M:%S", "%H:%M"}) {
        tmTime.tm_sec = 0;
        const char* pEnd = strptime(strText.c_str(), szForm, &tmTime);
        if (pEnd != nullptr && *pEnd == '\0') {
            return tmTime.tm_sec <= kLastSecond;
        }
    }
    return false;
}

}  // namespace

std::optional<TimeStamp> ParseTime(const std::string& strText, std::time_t tNow) {
    std::string strRest(WithoutBlanks(strText));
    if (strRest == "now") {
        return StampOf(LocalTime(tNow));
    }
    if (const auto nAgo = ParseAgo(strRest, tNow)) {
        return nAgo;
    }
    std::tm tmTime = LocalTime(tNow);
    if (TakeDay(strRest, tmTime)) {
        tmTime.tm_hour = tmTime.tm_min = tmTime.tm_sec = 0;
        if (strRest.empty()) {
            return StampOf(tmTime);
        }
        if (strRest.front() != ' ' && strRest.front() != 'T') {
            return std::nullopt;
        }
        strRest.erase(0, 1);
    } else {
        tmTime = LocalTime(tNow);  // a date that does not exist may have changed it
    }
    return TakeTime(strRest, tmTime) ? std::optional(StampOf(tmTime)) : std::nullopt;
}
