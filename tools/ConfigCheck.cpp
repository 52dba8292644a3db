#include "tools/ConfigCheck.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "core/ConfigKeys.h"
#include "core/LogClientEntry.h"
#include "logstore/LogRecord.h"
#include "support/ParseInt.h"
#include "support/Socket.h"
#include "tools/ConfigLines.h"

namespace {

constexpr std::array<const char*, 2> kClientKeys = {kListenPortKey, kAppNameKey};

struct PortUse {
    std::string strWhose;
    std::size_t nLine;
    std::uint16_t wPort;  // that is used in fact
};

bool AlikeButForCase(const std::string& strText, const char* szOther) {
    return strText != szOther && strcasecmp(strText.c_str(), szOther) == 0;
}

bool HasCommentBehind(const std::string& strValue) {
    return strValue.find(" ;") != std::string::npos || strValue.find(" #") != std::string::npos ||
           strValue.find(" //") != std::string::npos;
}

// A number that is read as it is written.
bool IsPlainNumber(std::string_view strValue) {
    const std::string_view strSigned = strValue;
    if (strValue.starts_with('-') || strValue.starts_with('+')) {
        strValue.remove_prefix(1);
    }
    if (strValue.empty() || strValue.find_first_not_of("0123456789") != std::string_view::npos) {
        return false;
    }
    strValue.remove_prefix(std::min(strValue.find_first_not_of('0'), strValue.size() - 1));
    const std::string strDigits = (strSigned.starts_with('-') ? "-" : "") + std::string(strValue);
    return strDigits == "-0" || std::to_string(ParseInt(strDigits)) == strDigits;
}

// The number of a section that is named as the service names those of clients.
std::optional<std::int32_t> ClientNumber(const std::string& strSection) {
    const std::int32_t nNumber = ParseInt(strSection);
    return nNumber >= 0 && std::to_string(nNumber) == strSection ? std::optional(nNumber)
                                                                 : std::nullopt;
}

// "[1], [4] to [9]": the numbers below nEnd that are not in the set.
std::string Gaps(const std::set<std::int32_t>& numbers, std::int32_t nEnd) {
    std::vector<std::string> gaps;
    std::int32_t nFrom = 0;
    const auto close = [&](std::int32_t nBehind) {
        if (nBehind - nFrom == 1) {
            gaps.push_back(fmt::format("[{}]", nFrom));
        } else if (nBehind > nFrom) {
            gaps.push_back(fmt::format("[{}] to [{}]", nFrom, nBehind - 1));
        }
    };
    for (const std::int32_t nNumber : numbers) {
        close(std::min(nNumber, nEnd));
        nFrom = nNumber + 1;
    }
    close(nEnd);
    return fmt::format("{}", fmt::join(gaps, ", "));
}

class CConfigCheck {
public:
    ConfigReport Run(const std::string& strPath) {
        errno = 0;
        if (!m_Lines.Load(strPath)) {
            m_Report.Fail(0, kStatusNoConfiguration,
                          fmt::format("cannot be read (status {}): {}", kStatusNoConfiguration,
                                      std::strerror(errno)),
                          "it has to be there, and readable for the service");
            return std::move(m_Report);
        }
        FindClients();
        CheckRequired();
        CheckPidCount();
        for (const std::int32_t nClient : m_Clients) {
            CheckClient(nClient);
        }
        CheckLanguage();
        CheckCollisions(m_TcpPorts, "TCP");
        CheckCollisions(m_UdpPorts, "UDP");
        CheckSections();
        CheckEntries();
        return std::move(m_Report);
    }

private:
    // Which sections are read as clients. A file without PidCount is taken to mean them all.
    void FindClients() {
        for (const auto& [strSection, nLine] : m_Lines.AllSections()) {
            const auto nNumber = ClientNumber(strSection);
            if (nNumber && *nNumber <= kMaxClientIndex) {
                m_nSectionsEnd = std::max(m_nSectionsEnd, *nNumber + 1);
            }
        }
        const std::string strCount = m_Lines.Value({kPortSection, kPidCountKey});
        m_nPidCount = strCount.empty() ? m_nSectionsEnd : ParseInt(strCount);
        for (const auto& [strSection, nLine] : m_Lines.AllSections()) {
            AddClient(strSection);
        }
        for (const CConfigLines::Entry& entry : m_Lines.AllEntries()) {
            const auto name = ReadAs(entry.name);
            AddClient(name ? name->strSection : std::string());
        }
    }

    void AddClient(const std::string& strSection) {
        if (const auto nNumber = ClientNumber(strSection); nNumber && *nNumber < m_nPidCount) {
            m_Clients.insert(*nNumber);
        }
    }

    // The value that the service takes from an entry, if it takes any. Section and key are looked
    // up as one word, so this may be a value of another section.
    std::optional<ConfigName> ReadAs(const ConfigName& name) const {
        const std::string strWord = name.Word();
        for (const RequiredKey& key : kRequiredKeys) {
            ConfigName required{kPortSection, key.szKey};
            if (strWord == required.Word()) {
                return required;
            }
        }
        for (const std::string strKey : kClientKeys) {
            const std::string strSection =
                strWord.ends_with(strKey) ? strWord.substr(0, strWord.size() - strKey.size()) : "";
            if (const auto nNumber = ClientNumber(strSection); nNumber && *nNumber < m_nPidCount) {
                return ConfigName{strSection, strKey};
            }
        }
        const ConfigName language{kLocalSection, kLanguageKey};
        return strWord == language.Word() ? std::optional(language) : std::nullopt;
    }

    void CheckRequired() {
        for (const RequiredKey& key : kRequiredKeys) {
            const ConfigName name{kPortSection, key.szKey};
            if (m_Lines.Value(name).empty()) {
                const std::string strSample =
                    name.strKey == kPidCountKey ? std::to_string(m_nSectionsEnd) : key.szSample;
                m_Report.Fail(m_Lines.LineOf(name), key.nStatus,
                              fmt::format("{} is {} (status {})", key.szKey,
                                          m_Lines.Has(name) ? "empty" : "missing", key.nStatus),
                              fmt::format("write '{} = {}' in section [{}]", key.szKey, strSample,
                                          kPortSection));
            } else {
                CheckNumber(name);
            }
        }
        CheckPort({kPortSection, kViewerPortKey}, "the console",
                  "it gets any free port, which nobody knows", m_TcpPorts);
        CheckPort({kPortSection, kClientPortKey}, "records",
                  "they are awaited on any free port, which nobody knows", m_UdpPorts);
        CheckPort({kPortSection, kAgentPortKey}, "the management agent", "there is no link to it",
                  m_TcpPorts);
        const std::string strTimeout = m_Lines.Value({kPortSection, kTimeoutKey});
        if (!strTimeout.empty() && ParseInt(strTimeout) == 0) {
            m_Report.Warn(m_Lines.LineOf({kPortSection, kTimeoutKey}),
                          "TimeoutSet is 0: who logs in on the console is disconnected at once",
                          "write the seconds, or -1 for never");
        }
    }

    void CheckNumber(const ConfigName& name) {
        const std::string strValue = m_Lines.Value(name);
        if (!IsPlainNumber(strValue)) {
            const std::int32_t nRead = ParseInt(strValue);
            m_Report.Warn(m_Lines.LineOf(name),
                          fmt::format("{} is {}, which is read as {}", name.strKey,
                                      ShownText(strValue), nRead),
                          HasCommentBehind(strValue)
                              ? fmt::format("write {} alone: no comments behind a value", nRead)
                              : "write a number that fits 32 bits, in digits");
        }
    }

    // Notes the port that is used in fact. szZero: what happens when that is 0.
    void CheckPort(const ConfigName& name, const std::string& strWhose, const char* szZero,
                   std::vector<PortUse>& ports) {
        const std::string strValue = m_Lines.Value(name);
        if (strValue.empty()) {
            return;
        }
        const std::int32_t nValue = ParseInt(strValue);
        const bool bDefault = name.strKey == kViewerPortKey && nValue <= 0;
        const auto wPort = static_cast<std::uint16_t>(bDefault ? kDefaultConsolePort : nValue);
        // The documented way to have no link.
        const bool bWanted = name.strKey == kAgentPortKey && strValue == "0";
        if ((nValue < 1 || nValue > kHighestPort) && !bWanted) {
            m_Report.Warn(m_Lines.LineOf(name),
                          fmt::format("{} is {}, which is no port: {}", name.strKey, nValue,
                                      wPort == 0 ? szZero : fmt::format("{} is used", wPort)),
                          fmt::format("write a number from 1 to {}", kHighestPort));
        }
        if (wPort != 0) {
            ports.push_back({strWhose, m_Lines.LineOf(name), wPort});
        }
    }

    void CheckPidCount() {
        const std::size_t nLine = m_Lines.LineOf({kPortSection, kPidCountKey});
        if (m_nPidCount > kMaxClientIndex + 1) {
            m_Report.Warn(nLine,
                          fmt::format("PidCount is {}: records of clients above {} are refused",
                                      m_nPidCount, kMaxClientIndex),
                          fmt::format("number the clients from 0 to {}", kMaxClientIndex));
        }
        const std::string strGaps = Gaps(m_Clients, std::max(m_nPidCount, 0));
        if (!strGaps.empty()) {
            const std::int32_t nFit = m_Clients.empty() ? 0 : *m_Clients.rbegin() + 1;
            m_Report.Warn(
                nLine,
                fmt::format("PidCount is {}, and there is no section {}", m_nPidCount, strGaps),
                nFit < m_nPidCount
                    ? fmt::format("write 'PidCount = {}', or add what is missing", nFit)
                    : "add what is missing, unless no client has this number");
        }
    }

    void CheckClient(std::int32_t nClient) {
        const std::string strSection = std::to_string(nClient);
        bool bComplete = true;
        for (const char* szKey : kClientKeys) {
            if (m_Lines.Value({strSection, szKey}).empty()) {
                m_Report.Warn(m_Lines.LineOf({strSection, szKey}),
                              fmt::format("client {} has no {}: it is skipped", nClient, szKey),
                              fmt::format("write '{} = ...' in section [{}]", szKey, strSection));
                bComplete = false;
            }
        }
        if (bComplete) {
            CheckNumber({strSection, kListenPortKey});
            CheckPort({strSection, kListenPortKey}, fmt::format("client {}", nClient),
                      "the client cannot be told to log in real time", m_UdpPorts);
            CheckName({strSection, kAppNameKey}, nClient);
        }
    }

    void CheckName(const ConfigName& name, std::int32_t nClient) {
        const std::string strName = m_Lines.Value(name);
        const std::size_t nLine = m_Lines.LineOf(name);
        if (strName.size() > LogClientEntry::kMaxNameLen) {
            m_Report.Warn(nLine,
                          fmt::format("APP has {} bytes: the first {} count", strName.size(),
                                      LogClientEntry::kMaxNameLen),
                          "shorten it");
        }
        if (HasCommentBehind(strName)) {
            m_Report.Warn(
                nLine,
                fmt::format("the name is {}: no comments behind a value", ShownText(strName)),
                "put the comment in a line of its own");
        }
        const auto [itName, bNew] = m_mapNames.emplace(strName, nClient);
        if (!bNew) {
            m_Report.Warn(
                nLine,
                fmt::format("client {} has the name {}, too", itName->second, ShownText(strName)),
                "give each client a name of its own");
        }
    }

    void CheckLanguage() {
        const ConfigName name{kLocalSection, kLanguageKey};
        const std::string strValue = m_Lines.Value(name);
        if (m_Lines.Has(name) && strValue != "English" && strValue != "Chinese") {
            m_Report.Warn(m_Lines.LineOf(name),
                          fmt::format("LANGUAGE is {}: taken for Chinese", ShownText(strValue)),
                          "write 'English' or 'Chinese'");
        }
    }

    void CheckCollisions(const std::vector<PortUse>& ports, const char* szProtocol) {
        std::map<std::uint16_t, const PortUse*> mapFirst;
        for (const PortUse& port : ports) {
            const auto [itFirst, bNew] = mapFirst.emplace(port.wPort, &port);
            if (!bNew) {
                m_Report.Warn(port.nLine,
                              fmt::format("{} port {} of {} is also that of {} (line {})",
                                          szProtocol, port.wPort, port.strWhose,
                                          itFirst->second->strWhose, itFirst->second->nLine),
                              "give each a port of its own");
            }
        }
    }

    void CheckSections() {
        for (const auto& [strSection, nLine] : m_Lines.AllSections()) {
            if (!IsSectionRead(strSection)) {
                m_Report.Warn(nLine, fmt::format("section [{}] is not read", strSection),
                              SectionAdvice(strSection));
            }
        }
    }

    bool IsSectionRead(const std::string& strSection) const {
        const auto nNumber = ClientNumber(strSection);
        return strSection == kPortSection || strSection == kLocalSection ||
               (nNumber && *nNumber < m_nPidCount);
    }

    std::string SectionAdvice(const std::string& strSection) const {
        for (const char* szName : {kPortSection, kLocalSection}) {
            if (AlikeButForCase(strSection, szName)) {
                return fmt::format("write [{}]: case counts", szName);
            }
        }
        const std::int32_t nNumber = ParseInt(strSection);
        if (nNumber < 0 || nNumber > kMaxClientIndex || !IsPlainNumber(strSection)) {
            return fmt::format("there are [{}], [local], and [0] to [{}] for clients", kPortSection,
                               kMaxClientIndex);
        }
        return ClientNumber(strSection)
                   ? fmt::format("write 'PidCount = {}', or remove it", m_nSectionsEnd)
                   : fmt::format("write [{}]", nNumber);
    }

    void CheckEntries() {
        for (const CConfigLines::Entry& entry : m_Lines.AllEntries()) {
            const auto read = ReadAs(entry.name);
            const std::size_t nLast = m_Lines.LineOf(entry.name);
            if (read && nLast != entry.nLine) {
                m_Report.Warn(entry.nLine,
                              fmt::format("{} does not count: it is set again in line {}",
                                          read->strKey, nLast),
                              "remove one of the two");
            } else if (read && *read != entry.name) {
                m_Report.Warn(entry.nLine,
                              fmt::format("{} of section [{}] is read as {} of section [{}]",
                                          ShownText(entry.name.strKey), entry.name.strSection,
                                          read->strKey, read->strSection),
                              "remove it, or correct the key");
            } else if (!read && IsSectionRead(entry.name.strSection)) {
                m_Report.Warn(entry.nLine,
                              fmt::format("{} is not read", ShownText(entry.name.strKey)),
                              KeyAdvice(entry.name));
            }
        }
    }

    static std::string KeyAdvice(const ConfigName& name) {
        std::vector<const char*> known(kClientKeys.begin(), kClientKeys.end());
        if (name.strSection == kPortSection) {
            known.clear();
            for (const RequiredKey& key : kRequiredKeys) {
                known.push_back(key.szKey);
            }
        } else if (name.strSection == kLocalSection) {
            known = {kLanguageKey};
        }
        for (const char* szKey : known) {
            if (AlikeButForCase(name.strKey, szKey)) {
                return fmt::format("write '{}': case counts", szKey);
            }
        }
        if (name.strKey.starts_with('[')) {
            return DroppedAdvice(name.strKey);
        }
        return fmt::format("the keys of this section are {}", fmt::join(known, ", "));
    }

    ConfigReport m_Report;
    CConfigLines m_Lines{m_Report};
    std::int32_t m_nPidCount = 0;
    std::int32_t m_nSectionsEnd = 0;   // one more than the highest client section's number
    std::set<std::int32_t> m_Clients;  // that are read
    std::map<std::string, std::int32_t> m_mapNames;  // first client of each name
    std::vector<PortUse> m_TcpPorts;
    std::vector<PortUse> m_UdpPorts;
};

}  // namespace

void ConfigReport::Add(ConfigFinding finding) {
    const auto itBehind = std::upper_bound(
        findings.begin(), findings.end(), finding.nLine,
        [](std::size_t nLine, const ConfigFinding& other) { return nLine < other.nLine; });
    findings.insert(itBehind, std::move(finding));
}

void ConfigReport::Warn(std::size_t nLine, std::string strText, std::string strAdvice) {
    Add({nLine, 0, std::move(strText), std::move(strAdvice)});
}

void ConfigReport::Fail(std::size_t nLine, int nFindingStatus, std::string strText,
                        std::string strAdvice) {
    Add({nLine, nFindingStatus, std::move(strText), std::move(strAdvice)});
    nStatus = nStatus != 0 ? nStatus : nFindingStatus;
}

ConfigReport CheckConfig(const std::string& strPath) {
    return CConfigCheck().Run(strPath);
}
