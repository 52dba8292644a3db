#include "tools/ConfigCheck.h"

#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "core/LogClientEntry.h"
#include "logstore/LogRecord.h"
#include "reading/TextRepair.h"
#include "support/IniFile.h"
#include "support/ParseInt.h"

namespace {

constexpr int kStatusNoConfiguration = 50;
constexpr const char* kPorts = "PORT_CONFIG";
constexpr std::int32_t kHighestPort = 65535;
constexpr std::int32_t kDefaultConsolePort = 1981;

struct RequiredKey {
    const char* szKey;
    int nStatus;           // the service's exit status without it
    const char* szSample;  // as in docs/log.conf
};

// In the order in which the service reads them.
constexpr std::array<RequiredKey, 5> kRequired = {{{"PortFromViewer", 52, "1981"},
                                                   {"PortFromClient", 55, "1982"},
                                                   {"nSTPort", 56, "1983"},
                                                   {"TimeoutSet", 53, "120"},
                                                   {"PidCount", 60, "0"}}};

constexpr std::array<const char*, 2> kClientKeys = {"ListenPort", "APP"};

struct Name {
    std::string strSection;
    std::string strKey;

    bool operator==(const Name&) const = default;
};

struct Entry {
    Name name;
    std::size_t nLine;
};

struct PortUse {
    std::string strWhose;
    std::size_t nLine;
    std::uint16_t wPort;  // that is used in fact
};

// A text of the file, fit to be shown.
std::string Shown(std::string_view strText) {
    constexpr std::size_t kMost = 60;
    fmt::memory_buffer buffer;
    AppendRepaired(buffer, strText.substr(0, kMost), EControls::Dots);
    return fmt::format("'{}{}'", std::string_view(buffer.data(), buffer.size()),
                       strText.size() > kMost ? "..." : "");
}

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

std::string DroppedAdvice(const std::string& strLine) {
    if (strLine.starts_with("\xEF\xBB\xBF")) {
        return "save the file without the byte order mark at its begin";
    }
    if (strLine.starts_with('[')) {
        return "a section's line is '[name]' with nothing behind it";
    }
    return strLine.size() < 3 ? "remove it: a line has three characters or more"
                              : "write 'key = value', or begin it with '#'";
}

class CConfigCheck {
public:
    explicit CConfigCheck(const std::string& strPath) : m_strPath(strPath) {}

    ConfigReport Run() {
        errno = 0;
        if (!m_Config.Load(m_strPath)) {
            Fail(0, kStatusNoConfiguration,
                 fmt::format("cannot be read (status {}): {}", kStatusNoConfiguration,
                             std::strerror(errno)),
                 "it has to be there, and readable for the service");
            return std::move(m_Report);
        }
        ReadLines();
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
    // In the order of the lines, and of finding for those of one line.
    void Add(ConfigFinding finding) {
        const auto itBehind = std::upper_bound(
            m_Report.findings.begin(), m_Report.findings.end(), finding.nLine,
            [](std::size_t nLine, const ConfigFinding& other) { return nLine < other.nLine; });
        m_Report.findings.insert(itBehind, std::move(finding));
    }

    void Warn(std::size_t nLine, std::string strText, std::string strAdvice) {
        Add({nLine, 0, std::move(strText), std::move(strAdvice)});
    }

    void Fail(std::size_t nLine, int nStatus, std::string strText, std::string strAdvice) {
        Add({nLine, nStatus, std::move(strText), std::move(strAdvice)});
        m_Report.nStatus = m_Report.nStatus != 0 ? m_Report.nStatus : nStatus;
    }

    // Cuts the file into the lines that the service sees, which are shorter than those of an
    // editor when these are too long.
    void ReadLines() {
        std::ifstream file(m_strPath, std::ios::binary);
        const std::string strContent{std::istreambuf_iterator<char>(file), {}};
        std::size_t nLine = 1;
        for (std::size_t nAt = 0; nAt < strContent.size();) {
            const std::size_t nEnd = std::min(strContent.find('\n', nAt), strContent.size());
            const std::size_t nBytes = nEnd - nAt;
            if (nBytes > CIniFile::kMaxLineBytes) {
                Warn(nLine,
                     fmt::format("has {} bytes: every {} are read as a line of their own", nBytes,
                                 CIniFile::kMaxLineBytes),
                     "shorten it");
            }
            for (std::size_t nDone = 0; nDone < nBytes; nDone += CIniFile::kMaxLineBytes) {
                const std::size_t nPiece = std::min(nBytes - nDone, CIniFile::kMaxLineBytes);
                ReadLine(strContent.substr(nAt + nDone, nPiece), nLine);
            }
            nAt = nEnd + 1;
            ++nLine;
        }
    }

    void ReadLine(std::string strLine, std::size_t nLine) {
        const std::size_t nText = strLine.find('\0');
        if (nText != std::string::npos) {
            Warn(nLine, "has a NUL byte: what is behind it is not read", "remove it");
            strLine.resize(nText);
        }
        CIniFile::Trim(strLine);
        switch (CIniFile::Classify(strLine)) {
            case CIniFile::ELine::Note:
                break;
            case CIniFile::ELine::Section:
                OpenSection(strLine.substr(1, strLine.size() - 2), nLine);
                break;
            case CIniFile::ELine::Entry:
                AddEntry(strLine.substr(0, strLine.find('=')), nLine);
                break;
            case CIniFile::ELine::Dropped:
                Warn(nLine, fmt::format("{} is not read", Shown(strLine)), DroppedAdvice(strLine));
                break;
        }
    }

    void OpenSection(std::string strName, std::size_t nLine) {
        m_optSection = CIniFile::Trim(strName);
        const auto [itSection, bNew] = m_mapSections.emplace(strName, nLine);
        if (!bNew) {
            Warn(nLine,
                 fmt::format("section [{}] is there in line {} already: both are read as one",
                             strName, itSection->second),
                 "join them, or correct the name");
        }
    }

    void AddEntry(std::string strKey, std::size_t nLine) {
        CIniFile::Trim(strKey);
        if (!m_optSection) {
            Warn(nLine, fmt::format("{} stands in front of all sections: not read", Shown(strKey)),
                 "move it into its section");
            return;
        }
        m_Entries.push_back({{*m_optSection, strKey}, nLine});
        m_mapLines[*m_optSection + strKey] = nLine;
    }

    std::string Value(const Name& name) const {
        return m_Config.GetValue(name.strSection, name.strKey);
    }

    // Where the value stands that counts; else where its section begins; else 0.
    std::size_t LineOf(const Name& name) const {
        const auto itLine = m_mapLines.find(name.strSection + name.strKey);
        if (itLine != m_mapLines.end()) {
            return itLine->second;
        }
        const auto itSection = m_mapSections.find(name.strSection);
        return itSection == m_mapSections.end() ? 0 : itSection->second;
    }

    // Which sections are read as clients. A file without PidCount is taken to mean them all.
    void FindClients() {
        for (const auto& [strSection, nLine] : m_mapSections) {
            const auto nNumber = ClientNumber(strSection);
            if (nNumber && *nNumber <= kMaxClientIndex) {
                m_nSectionsEnd = std::max(m_nSectionsEnd, *nNumber + 1);
            }
        }
        const std::string strCount = Value({kPorts, "PidCount"});
        m_nPidCount = strCount.empty() ? m_nSectionsEnd : ParseInt(strCount);
        for (const auto& [strSection, nLine] : m_mapSections) {
            AddClient(strSection);
        }
        for (const Entry& entry : m_Entries) {
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
    std::optional<Name> ReadAs(const Name& name) const {
        const std::string strWord = name.strSection + name.strKey;
        for (const RequiredKey& key : kRequired) {
            if (strWord == std::string(kPorts) + key.szKey) {
                return Name{kPorts, key.szKey};
            }
        }
        for (const std::string strKey : kClientKeys) {
            const std::string strSection =
                strWord.ends_with(strKey) ? strWord.substr(0, strWord.size() - strKey.size()) : "";
            if (const auto nNumber = ClientNumber(strSection); nNumber && *nNumber < m_nPidCount) {
                return Name{strSection, strKey};
            }
        }
        return strWord == "localLANGUAGE" ? std::optional(Name{"local", "LANGUAGE"}) : std::nullopt;
    }

    void CheckRequired() {
        for (const RequiredKey& key : kRequired) {
            const Name name{kPorts, key.szKey};
            if (Value(name).empty()) {
                const std::string strSample =
                    name.strKey == "PidCount" ? std::to_string(m_nSectionsEnd) : key.szSample;
                Fail(LineOf(name), key.nStatus,
                     fmt::format("{} is {} (status {})", key.szKey,
                                 m_mapLines.contains(kPorts + name.strKey) ? "empty" : "missing",
                                 key.nStatus),
                     fmt::format("write '{} = {}' in section [{}]", key.szKey, strSample, kPorts));
            } else {
                CheckNumber(name);
            }
        }
        CheckPort({kPorts, "PortFromViewer"}, "the console",
                  "it gets any free port, which nobody knows", m_TcpPorts);
        CheckPort({kPorts, "PortFromClient"}, "records",
                  "they are awaited on any free port, which nobody knows", m_UdpPorts);
        CheckPort({kPorts, "nSTPort"}, "the management agent", "there is no link to it",
                  m_TcpPorts);
        const std::string strTimeout = Value({kPorts, "TimeoutSet"});
        if (!strTimeout.empty() && ParseInt(strTimeout) == 0) {
            Warn(LineOf({kPorts, "TimeoutSet"}),
                 "TimeoutSet is 0: who logs in on the console is disconnected at once",
                 "write the seconds, or -1 for never");
        }
    }

    void CheckNumber(const Name& name) {
        const std::string strValue = Value(name);
        if (!IsPlainNumber(strValue)) {
            const std::int32_t nRead = ParseInt(strValue);
            Warn(LineOf(name),
                 fmt::format("{} is {}, which is read as {}", name.strKey, Shown(strValue), nRead),
                 HasCommentBehind(strValue)
                     ? fmt::format("write {} alone: no comments behind a value", nRead)
                     : "write a number that fits 32 bits, in digits");
        }
    }

    // Notes the port that is used in fact. szZero: what happens when that is 0.
    void CheckPort(const Name& name, const std::string& strWhose, const char* szZero,
                   std::vector<PortUse>& ports) {
        const std::string strValue = Value(name);
        if (strValue.empty()) {
            return;
        }
        const std::int32_t nValue = ParseInt(strValue);
        const bool bDefault = name.strKey == "PortFromViewer" && nValue <= 0;
        const auto wPort = static_cast<std::uint16_t>(bDefault ? kDefaultConsolePort : nValue);
        const bool bWanted = name.strKey == "nSTPort" && strValue == "0";  // documented: no link
        if ((nValue < 1 || nValue > kHighestPort) && !bWanted) {
            Warn(LineOf(name),
                 fmt::format("{} is {}, which is no port: {}", name.strKey, nValue,
                             wPort == 0 ? szZero : fmt::format("{} is used", wPort)),
                 fmt::format("write a number from 1 to {}", kHighestPort));
        }
        if (wPort != 0) {
            ports.push_back({strWhose, LineOf(name), wPort});
        }
    }

    void CheckPidCount() {
        const std::size_t nLine = LineOf({kPorts, "PidCount"});
        if (m_nPidCount > kMaxClientIndex + 1) {
            Warn(nLine,
                 fmt::format("PidCount is {}: records of clients above {} are refused", m_nPidCount,
                             kMaxClientIndex),
                 fmt::format("number the clients from 0 to {}", kMaxClientIndex));
        }
        const std::string strGaps = Gaps(m_Clients, std::max(m_nPidCount, 0));
        if (!strGaps.empty()) {
            const std::int32_t nFit = m_Clients.empty() ? 0 : *m_Clients.rbegin() + 1;
            Warn(nLine,
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
            if (Value({strSection, szKey}).empty()) {
                Warn(LineOf({strSection, szKey}),
                     fmt::format("client {} has no {}: it is skipped", nClient, szKey),
                     fmt::format("write '{} = ...' in section [{}]", szKey, strSection));
                bComplete = false;
            }
        }
        if (bComplete) {
            CheckNumber({strSection, "ListenPort"});
            CheckPort({strSection, "ListenPort"}, fmt::format("client {}", nClient),
                      "the client cannot be told to log in real time", m_UdpPorts);
            CheckName({strSection, "APP"}, nClient);
        }
    }

    void CheckName(const Name& name, std::int32_t nClient) {
        const std::string strName = Value(name);
        const std::size_t nLine = LineOf(name);
        if (strName.size() > LogClientEntry::kMaxNameLen) {
            Warn(nLine,
                 fmt::format("APP has {} bytes: the first {} count", strName.size(),
                             LogClientEntry::kMaxNameLen),
                 "shorten it");
        }
        if (HasCommentBehind(strName)) {
            Warn(nLine, fmt::format("the name is {}: no comments behind a value", Shown(strName)),
                 "put the comment in a line of its own");
        }
        const auto [itName, bNew] = m_mapNames.emplace(strName, nClient);
        if (!bNew) {
            Warn(nLine,
                 fmt::format("client {} has the name {}, too", itName->second, Shown(strName)),
                 "give each client a name of its own");
        }
    }

    void CheckLanguage() {
        const Name name{"local", "LANGUAGE"};
        const std::string strValue = Value(name);
        if (m_mapLines.contains("localLANGUAGE") && strValue != "English" &&
            strValue != "Chinese") {
            Warn(LineOf(name), fmt::format("LANGUAGE is {}: taken for Chinese", Shown(strValue)),
                 "write 'English' or 'Chinese'");
        }
    }

    void CheckCollisions(const std::vector<PortUse>& ports, const char* szProtocol) {
        std::map<std::uint16_t, const PortUse*> mapFirst;
        for (const PortUse& port : ports) {
            const auto [itFirst, bNew] = mapFirst.emplace(port.wPort, &port);
            if (!bNew) {
                Warn(port.nLine,
                     fmt::format("{} port {} of {} is also that of {} (line {})", szProtocol,
                                 port.wPort, port.strWhose, itFirst->second->strWhose,
                                 itFirst->second->nLine),
                     "give each a port of its own");
            }
        }
    }

    void CheckSections() {
        for (const auto& [strSection, nLine] : m_mapSections) {
            if (!IsSectionRead(strSection)) {
                Warn(nLine, fmt::format("section [{}] is not read", strSection),
                     SectionAdvice(strSection));
            }
        }
    }

    bool IsSectionRead(const std::string& strSection) const {
        const auto nNumber = ClientNumber(strSection);
        return strSection == kPorts || strSection == "local" || (nNumber && *nNumber < m_nPidCount);
    }

    std::string SectionAdvice(const std::string& strSection) const {
        for (const char* szName : {kPorts, "local"}) {
            if (AlikeButForCase(strSection, szName)) {
                return fmt::format("write [{}]: case counts", szName);
            }
        }
        const std::int32_t nNumber = ParseInt(strSection);
        if (nNumber < 0 || nNumber > kMaxClientIndex || !IsPlainNumber(strSection)) {
            return fmt::format("there are [{}], [local], and [0] to [{}] for clients", kPorts,
                               kMaxClientIndex);
        }
        return ClientNumber(strSection)
                   ? fmt::format("write 'PidCount = {}', or remove it", m_nSectionsEnd)
                   : fmt::format("write [{}]", nNumber);
    }

    void CheckEntries() {
        for (const Entry& entry : m_Entries) {
            const auto read = ReadAs(entry.name);
            const std::size_t nLast = m_mapLines.at(entry.name.strSection + entry.name.strKey);
            if (read && nLast != entry.nLine) {
                Warn(entry.nLine,
                     fmt::format("{} does not count: it is set again in line {}", read->strKey,
                                 nLast),
                     "remove one of the two");
            } else if (read && *read != entry.name) {
                Warn(entry.nLine,
                     fmt::format("{} of section [{}] is read as {} of section [{}]",
                                 Shown(entry.name.strKey), entry.name.strSection, read->strKey,
                                 read->strSection),
                     "remove it, or correct the key");
            } else if (!read && IsSectionRead(entry.name.strSection)) {
                Warn(entry.nLine, fmt::format("{} is not read", Shown(entry.name.strKey)),
                     KeyAdvice(entry.name));
            }
        }
    }

    static std::string KeyAdvice(const Name& name) {
        std::vector<const char*> known(kClientKeys.begin(), kClientKeys.end());
        if (name.strSection == kPorts) {
            known.clear();
            for (const RequiredKey& key : kRequired) {
                known.push_back(key.szKey);
            }
        } else if (name.strSection == "local") {
            known = {"LANGUAGE"};
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

    std::string m_strPath;
    CIniFile m_Config;  // what the service itself reads
    ConfigReport m_Report;
    std::optional<std::string> m_optSection;           // that the line is in
    std::map<std::string, std::size_t> m_mapSections;  // with the line where each first begins
    std::vector<Entry> m_Entries;                      // all, as they come
    std::map<std::string, std::size_t> m_mapLines;     // last line by section and key, as one word
    std::int32_t m_nPidCount = 0;
    std::int32_t m_nSectionsEnd = 0;   // one more than the highest client section's number
    std::set<std::int32_t> m_Clients;  // that are read
    std::map<std::string, std::int32_t> m_mapNames;  // first client of each name
    std::vector<PortUse> m_TcpPorts;
    std::vector<PortUse> m_UdpPorts;
};

}  // namespace

ConfigReport CheckConfig(const std::string& strPath) {
    return CConfigCheck(strPath).Run();
}
