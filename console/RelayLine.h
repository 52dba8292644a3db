// One real-time record as the line that the telnet client sees.
//
// Threads: any.
#pragma once

#include <cstddef>

#include "core/LogClientEntry.h"
#include "logstore/LogRecord.h"

constexpr std::size_t kRelayNameBytes = sizeof(LogClientEntry::szAppName);
constexpr std::size_t kRelayStampBytes = 19;  // "2009-03-07 14:05:09"; a longer one is cut
constexpr std::size_t kRelayFrameBytes = 10;  // brackets, blanks and the line end
constexpr std::size_t kRelayLineBytes =
    kRelayNameBytes + kRelayStampBytes + kRecordTextBytes + kRelayFrameBytes;

// Writes "[name] [time stamp] [text]\r\n" to szLine, without a NUL, and returns its length. Name
// and text end at their NUL or at the end of their fields; the time stamp is the record's own.
std::size_t FormatRelayLine(char (&szLine)[kRelayLineBytes], const char (&szName)[kRelayNameBytes],
                            const LogRecord& record);
