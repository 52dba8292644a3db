#include "tools/DayFile.h"

#include <fmt/format.h>

#include <cstring>
#include <fstream>
#include <stdexcept>

DayFile ReadDayFile(const std::string& strPath) {
    std::ifstream file(strPath, std::ios::binary);
    if (!file) {
        throw std::runtime_error(fmt::format("{}: cannot be opened", strPath));
    }
    DayFile day;
    if (!file.read(reinterpret_cast<char*>(&day.header), sizeof(day.header)) ||
        day.header.dwMagic != LOG_RECORD_MAGIC) {
        throw std::runtime_error(fmt::format("{}: no header of a day's file", strPath));
    }
    std::vector<LogRecord> slots;  // slot k at index k - 1
    LogRecord record;
    while (file.read(reinterpret_cast<char*>(&record), sizeof(record))) {
        slots.push_back(record);
    }
    if (day.header.dwCount < kLogFileUnits) {
        slots.resize(std::min<std::size_t>(slots.size(), day.header.dwCount));
        day.records = std::move(slots);
        return day;
    }
    const std::size_t nOldest = day.header.dwCount % kLogFileUnits % slots.size();
    day.records.assign(slots.begin() + static_cast<std::ptrdiff_t>(nOldest), slots.end());
    day.records.insert(day.records.end(), slots.begin(),
                       slots.begin() + static_cast<std::ptrdiff_t>(nOldest));
    return day;
}

std::string RecordText(const LogRecord& record) {
    return {record.szText, strnlen(record.szText, kRecordTextBytes)};
}
