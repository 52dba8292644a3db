// The log record: the datagram that a log client sends, the unit of the day's file and of the
// circle buffer; and the header of the day's file (docs/protocols.md, "Log record" and "Day's
// file"). Layouts and constants only. Integers are little-endian, as the processor of the appliance
// has them.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string_view>

static_assert(std::endian::native == std::endian::little,
              "records are used as they lie in memory; this processor would need conversion");

constexpr std::uint32_t LOG_RECORD_MAGIC = 0x26581944;

constexpr std::int32_t kMaxClientIndex = 99;
constexpr std::int32_t kMaxOrdinaryType = 3;  // 0 to 3 are stored
constexpr std::int32_t kRealTimeType = 4;     // shown on the console, never stored
constexpr std::size_t kClientCount = kMaxClientIndex + 1;
constexpr std::size_t kOrdinaryTypeCount = kMaxOrdinaryType + 1;
static_assert(kRealTimeType == kMaxOrdinaryType + 1, "the numbers of the types have no gap");

// Whether a stored record of this type lights the LED: warnings and errors do.
constexpr bool LightsLed(std::int32_t nType) {
    return nType == 1 || nType == 2;
}

struct LogRecord {
    std::uint32_t dwMagic;  // LOG_RECORD_MAGIC
    std::int32_t nIndex;    // the client's section number in log.conf
    std::int32_t nType;     // 0 to 3, or kRealTimeType
    std::uint16_t wYear;    // the client's time stamp, four digits
    std::uint8_t byMonth;   // 1 to 12
    std::uint8_t byDay;     // 1 to 31
    std::uint8_t byHour;
    std::uint8_t byMinute;
    std::uint8_t bySecond;
    std::uint8_t byReserved;
    char szText[280];  // ends at its NUL, or at the end of the field
};

constexpr std::size_t kRecordBytes = 300;
constexpr std::size_t kRecordHeadBytes = 20;  // everything before the text
constexpr std::size_t kRecordTextBytes = 280;

static_assert(sizeof(LogRecord) == kRecordBytes);
static_assert(offsetof(LogRecord, nIndex) == 4 && offsetof(LogRecord, nType) == 8);
static_assert(offsetof(LogRecord, wYear) == 12 && offsetof(LogRecord, byMonth) == 14);
static_assert(offsetof(LogRecord, bySecond) == 18);
static_assert(offsetof(LogRecord, szText) == kRecordHeadBytes);

// A record without text, with a broken-down local time as its stamp.
inline LogRecord StampedRecord(std::int32_t nIndex, std::int32_t nType, const std::tm& tmStamp) {
    LogRecord record{};
    record.dwMagic = LOG_RECORD_MAGIC;
    record.nIndex = nIndex;
    record.nType = nType;
    record.wYear = static_cast<std::uint16_t>(tmStamp.tm_year + 1900);
    record.byMonth = static_cast<std::uint8_t>(tmStamp.tm_mon + 1);
    record.byDay = static_cast<std::uint8_t>(tmStamp.tm_mday);
    record.byHour = static_cast<std::uint8_t>(tmStamp.tm_hour);
    record.byMinute = static_cast<std::uint8_t>(tmStamp.tm_min);
    record.bySecond = static_cast<std::uint8_t>(tmStamp.tm_sec);
    return record;
}

// The text, up to its NUL or the end of its field; valid as long as the record.
inline std::string_view RecordText(const LogRecord& record) {
    return {record.szText, strnlen(record.szText, kRecordTextBytes)};
}

// First unit of a day's file.
struct LogFileHeader {
    std::uint32_t dwMagic;  // LOG_RECORD_MAGIC
    std::uint32_t dwCount;  // write counter; the newest record is in slot dwCount % kLogFileUnits
    std::uint8_t byReserved[292];
};
static_assert(sizeof(LogFileHeader) == kRecordBytes && offsetof(LogFileHeader, dwCount) == 4);

// Slots behind the newest record that may hold records already: the service writes them before the
// header that counts them.
constexpr std::size_t kMostAheadOfHeader = 64;

constexpr std::uint32_t kLogFileUnits = 10239;              // the header and the slots
constexpr std::uint32_t kLogFileSlots = kLogFileUnits - 1;  // slots 1 to 10238, slot k at 300 * k
