#include "tools/RecordLine.h"

#include <fmt/format.h>

#include <stdexcept>

#include "tools/DayFile.h"

namespace {

std::string ClientName(const CIniFile& config, std::int32_t nIndex) {
    const std::string strName = config.GetValue(std::to_string(nIndex), "APP");
    return strName.empty() ? fmt::format("client {}", nIndex) : strName;
}

// Control characters of a text would act on the reader's terminal.
std::string Printable(std::string strText) {
    for (char& c : strText) {
        if (static_cast<unsigned char>(c) < ' ' || c == 0x7F) {
            c = '.';
        }
    }
    return strText;
}

}  // namespace

CRecordLines::CRecordLines(const std::string& strConfig) {
    if (!strConfig.empty() && !m_Config.Load(strConfig)) {
        throw std::runtime_error(fmt::format("{}: cannot be read", strConfig));
    }
}

std::string CRecordLines::Line(const LogRecord& record) const {
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}  {:<12} {:>2}  {}", record.wYear,
                       record.byMonth, record.byDay, record.byHour, record.byMinute,
                       record.bySecond, ClientName(m_Config, record.nIndex), record.nType,
                       Printable(RecordText(record)));
}
