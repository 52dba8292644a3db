#include "console/RelayLine.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// Two digits of a number below 100.
char* PutTwo(char* pTo, unsigned nNumber) {
    *pTo++ = static_cast<char>('0' + nNumber / 10);
    *pTo++ = static_cast<char>('0' + nNumber % 10);
    return pTo;
}

// The stamp of a record whose clock was right, which is nearly every one: printing it in the
// general way would be half of what a line costs.
std::size_t FormatUsualStamp(char (&szStamp)[kRelayStampBytes + 1], const LogRecord& record) {
    char* pTo = PutTwo(PutTwo(szStamp, record.wYear / 100U), record.wYear % 100U);
    const std::pair<char, std::uint8_t> kRest[] = {{'-', record.byMonth},
                                                   {'-', record.byDay},
                                                   {' ', record.byHour},
                                                   {':', record.byMinute},
                                                   {':', record.bySecond}};
    for (const auto& [cBefore, byNumber] : kRest) {
        *pTo++ = cBefore;
        pTo = PutTwo(pTo, byNumber);
    }
    return kRelayStampBytes;
}

bool IsUsual(const LogRecord& record) {
    return record.wYear >= 1000 && record.wYear < 10000 && record.byMonth < 100 &&
           record.byDay < 100 && record.byHour < 100 && record.byMinute < 100 &&
           record.bySecond < 100;
}

std::size_t FormatStamp(char (&szStamp)[kRelayStampBytes + 1], const LogRecord& record) {
    if (IsUsual(record)) {
        return FormatUsualStamp(szStamp, record);
    }
    const int nWanted = std::snprintf(szStamp, sizeof(szStamp), "%4d-%02d-%02d %02d:%02d:%02d",
                                      record.wYear, record.byMonth, record.byDay, record.byHour,
                                      record.byMinute, record.bySecond);
    return std::min(static_cast<std::size_t>(nWanted), kRelayStampBytes);
}

}  // namespace

std::size_t FormatRelayLine(char (&szLine)[kRelayLineBytes], const char (&szName)[kRelayNameBytes],
                            const LogRecord& record) {
    char szStamp[kRelayStampBytes + 1];
    const std::size_t nStamp = FormatStamp(szStamp, record);
    char* pEnd = szLine;
    for (const std::string_view piece :
         {std::string_view("["), std::string_view(szName, strnlen(szName, kRelayNameBytes)),
          std::string_view("] ["), std::string_view(szStamp, nStamp), std::string_view("] ["),
          RecordText(record), std::string_view("]\r\n")}) {
        pEnd = std::copy(piece.begin(), piece.end(), pEnd);
    }
    return static_cast<std::size_t>(pEnd - szLine);
}
