#include "reading/RecordFilter.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

bool Holds(const std::vector<std::int32_t>& numbers, std::int32_t nNumber) {
    return numbers.empty() || std::find(numbers.begin(), numbers.end(), nNumber) != numbers.end();
}

bool IsLiteral(const std::string& strPattern) {
    return strPattern.find_first_of("\\^$.[]|()*+?{}") == std::string::npos;
}

}  // namespace

std::string CRecordFilter::SetPattern(const std::string& strPattern, bool bIgnoreCase) {
    auto pRegex = std::make_unique<regex_t>();
    const int nFlags = REG_EXTENDED | REG_NOSUB | (bIgnoreCase ? REG_ICASE : 0);
    const int nError = regcomp(pRegex.get(), strPattern.c_str(), nFlags);
    if (nError != 0) {
        std::array<char, 256> szError{};
        regerror(nError, pRegex.get(), szError.data(), szError.size());
        return szError.data();
    }
    m_pRegex.reset(pRegex.release());
    m_strLiteral = !bIgnoreCase && IsLiteral(strPattern) ? strPattern : "";
    return {};
}

bool CRecordFilter::Accepts(const LogRecord& record) const {
    if (!Holds(m_Clients, record.nIndex) || !Holds(m_Types, record.nType)) {
        return false;
    }
    const TimeStamp nStamp = StampOf(record);
    if (nStamp < m_nSince || nStamp > m_nUntil) {
        return false;
    }
    if (m_pRegex == nullptr) {
        return true;
    }
    std::array<char, kRecordTextBytes + 1> szText;  // a full field has no NUL
    szText[RecordText(record).copy(szText.data(), kRecordTextBytes)] = '\0';
    return m_strLiteral.empty() ? regexec(m_pRegex.get(), szText.data(), 0, nullptr, 0) == 0
                                : std::strstr(szText.data(), m_strLiteral.c_str()) != nullptr;
}
