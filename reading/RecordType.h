// What the types of a record are called, and how each system of severities counts them.
//
// Threads: any; constants only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "logstore/LogRecord.h"

struct RecordType {
    std::int32_t nType;      // as in the record
    const char* szSeverity;  // the name on the command line and in the output
    int nSyslogSeverity;     // RFC 5424, 0 (emergency) to 7 (debug)
    const char* szColour;    // escape sequence of the terminal; empty: as it is
};

// In the order of the types, each at the place of its number.
inline constexpr std::array<RecordType, kOrdinaryTypeCount> kRecordTypes = {{
    {0, "info", 6, ""},
    {1, "warning", 4, "\x1b[33m"},
    {2, "error", 3, "\x1b[31m"},
    {3, "debug", 7, "\x1b[2m"},
}};
static_assert([] {
    for (std::size_t i = 0; i < kRecordTypes.size(); ++i) {
        if (kRecordTypes[i].nType != static_cast<std::int32_t>(i)) {
            return false;
        }
    }
    return true;
}());

// "info, warning, error, debug"
inline std::string RecordTypeNames() {
    std::string strNames;
    for (const RecordType& type : kRecordTypes) {
        strNames += (strNames.empty() ? "" : ", ") + std::string(type.szSeverity);
    }
    return strNames;
}

// "0 to 3"
inline std::string RecordTypeNumbers() {
    return "0 to " + std::to_string(kMaxOrdinaryType);
}

// Of any other type, such as a negative one, which the service stores as well.
inline constexpr RecordType kUnknownType = {-1, "unknown", 5, ""};

constexpr const RecordType& TypeOf(std::int32_t nType) {
    for (const RecordType& type : kRecordTypes) {
        if (type.nType == nType) {
            return type;
        }
    }
    return kUnknownType;
}
