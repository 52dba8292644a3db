#include "peers/DayFile.h"

#include <fmt/format.h>

#include <stdexcept>

#include "reading/DayStream.h"

DayFile ReadDayFile(const std::string& strPath) {
    CDayStream stream(strPath);
    if (!stream.HasHeader()) {
        throw std::runtime_error(fmt::format("{}: no header of a day's file", strPath));
    }
    DayFile day;
    day.header = stream.Header();
    const LogRecord* pRecord = nullptr;
    for (std::uint64_t i = stream.Begin(); i < stream.End(); ++i) {
        const ESlot eSlot = stream.Read(i, pRecord);
        if (eSlot == ESlot::kRecord || eSlot == ESlot::kNoRecord) {
            day.records.push_back(*pRecord);
        }
    }
    return day;
}
