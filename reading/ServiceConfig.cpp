#include "reading/ServiceConfig.h"

#include <fmt/format.h>

#include <stdexcept>

#include "core/ServiceFiles.h"
#include "reading/ClientNames.h"
#include "reading/FileAccess.h"
#include "support/ParseInt.h"
#include "support/Socket.h"
#include "support/SystemPath.h"

std::string MachineConfig() {
    return SystemPath(kConfigurationFile);
}

std::uint16_t CServiceConfig::Port(const std::string& strSection, const char* szKey,
                                   const char* szOption) {
    if (!m_bLoaded && !LoadConfig(m_Config, m_strPath)) {
        const std::string strWhy = WhyForbidden(m_strPath);
        throw std::runtime_error(
            fmt::format("{} {} {}", m_strPath,
                        strWhy.empty() ? "cannot be read; give" : strWhy + "; or give", szOption));
    }
    m_bLoaded = true;
    const std::int32_t nPort = ParseInt(m_Config.GetValue(strSection, szKey));
    if (nPort < 1 || nPort > kHighestPort) {
        throw std::runtime_error(fmt::format("{} names no port {} in section [{}]; give {}",
                                             m_strPath, szKey, strSection, szOption));
    }
    return static_cast<std::uint16_t>(nPort);
}
