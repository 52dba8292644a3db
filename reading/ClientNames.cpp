#include "reading/ClientNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "core/ConfigKeys.h"
#include "support/IniFile.h"

bool LoadConfig(CIniFile& config, const std::string& strPath) {
    std::error_code ignored;
    return std::filesystem::is_regular_file(strPath, ignored) && config.Load(strPath);
}

bool CClientNames::Load(const std::string& strConfig) {
    CIniFile config;
    if (!LoadConfig(config, strConfig)) {
        return false;
    }
    for (std::size_t i = 0; i < m_Names.size(); ++i) {
        m_Names[i] = config.GetValue(std::to_string(i), kAppNameKey);
    }
    return true;
}

std::string CClientNames::Name(std::int32_t nIndex) const {
    if (nIndex >= 0 && nIndex <= kMaxClientIndex) {
        const std::string& strName = m_Names[static_cast<std::size_t>(nIndex)];
        if (!strName.empty()) {
            return strName;
        }
    }
    return fmt::format("client {}", nIndex);
}

std::vector<std::int32_t> CClientNames::IndexesOf(const std::string& strName) const {
    std::vector<std::int32_t> indexes;
    for (std::size_t i = 0; i < m_Names.size() && !strName.empty(); ++i) {
        if (m_Names[i] == strName) {
            indexes.push_back(static_cast<std::int32_t>(i));
        }
    }
    return indexes;
}

std::size_t CClientNames::LongestName() const {
    return std::max_element(
               m_Names.begin(), m_Names.end(),
               [](const auto& first, const auto& second) { return first.size() < second.size(); })
        ->size();
}
