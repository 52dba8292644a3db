#include "console/RelayLine.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

std::size_t FormatStamp(char (&szStamp)[kRelayStampBytes + 1], const LogRecord& record) {
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
