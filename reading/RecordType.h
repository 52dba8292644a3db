// What the types of a record are called, and how each system of severities counts them.
//
// Threads: any; constants only.
#pragma once

#include <array>
#include <cstdint>

struct RecordType {
    std::int32_t nType;      // as in the record
    const char* szSeverity;  // the name on the command line and in the output
    int nSyslogSeverity;     // RFC 5424, 0 (emergency) to 7 (debug)
    const char* szColour;    // escape sequence of the terminal; empty: as it is
};

inline constexpr std::array<RecordType, 4> kRecordTypes = {{{0, "info", 6, ""},
                                                            {1, "warning", 4, "\x1b[33m"},
                                                            {2, "error", 3, "\x1b[31m"},
                                                            {3, "debug", 7, "\x1b[2m"}}};

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
