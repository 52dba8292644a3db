#include "reading/RecordFormat.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "reading/RecordTime.h"
#include "reading/RecordType.h"
#include "reading/TextRepair.h"

namespace {

using Buffer = fmt::memory_buffer;

void Add(Buffer& buffer, std::string_view strText) {
    buffer.append(strText.data(), strText.data() + strText.size());
}

void AddTime(Buffer& buffer, const LogRecord& record, char cBetween) {
    fmt::format_to(std::back_inserter(buffer), "{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", record.wYear,
                   record.byMonth, record.byDay, cBetween, record.byHour, record.byMinute,
                   record.bySecond);
}

// Client names as a form writes them, each made once.
class CWrittenNames {
public:
    CWrittenNames(const CClientNames& names, std::string (*pfnWrite)(const std::string&))
        : m_Names(names), m_pfnWrite(pfnWrite) {}

    const std::string& Get(std::int32_t nIndex) {
        constexpr std::size_t kMostNames = 1000;  // a file may hold any negative index
        const auto itKnown = m_Written.find(nIndex);
        if (itKnown != m_Written.end()) {
            return itKnown->second;
        }
        if (m_Written.size() >= kMostNames) {
            m_Written.clear();
        }
        return m_Written[nIndex] = m_pfnWrite(m_Names.Name(nIndex));
    }

private:
    const CClientNames& m_Names;
    std::string (*m_pfnWrite)(const std::string&);
    std::map<std::int32_t, std::string> m_Written;
};

std::string OnOneLine(const std::string& strText) {
    return Repaired(strText, EControls::kDots);
}

class CTextFormat : public CRecordFormat {
public:
    explicit CTextFormat(const FormContext& context)
        : m_Names(context.names, OnOneLine), m_bColour(context.bColour) {}

protected:
    const std::string& Name(const LogRecord& record) { return m_Names.Get(record.nIndex); }

    // The severity, as far as it is written already, and the text, in the colour of the severity.
    void AddColoured(Buffer& buffer, const RecordType& type, std::string_view strSeverity,
                     const LogRecord& record) const {
        const bool bColour = m_bColour && *type.szColour != '\0';
        Add(buffer, bColour ? type.szColour : "");
        Add(buffer, strSeverity);
        AppendRepaired(buffer, RecordText(record), EControls::kDots);
        Add(buffer, bColour ? "\x1b[0m\n" : "\n");
    }

private:
    CWrittenNames m_Names;
    bool m_bColour;
};

class CShortFormat : public CTextFormat {
public:
    explicit CShortFormat(const FormContext& context)
        : CTextFormat(context),
          m_strHost(context.strHost.empty() ? "" : context.strHost + " "),
          m_nNameWidth(std::min(context.names.LongestName(), kWidestName)) {}

    void Append(Buffer& buffer, const FoundRecord& found) override {
        Add(buffer, m_strHost);
        AddTime(buffer, found.record, ' ');
        const RecordType& type = TypeOf(found.record.nType);
        fmt::format_to(std::back_inserter(buffer), " {:<{}} ", Name(found.record), m_nNameWidth);
        AddColoured(buffer, type, fmt::format("{:<7} ", type.szSeverity), found.record);
    }

private:
    static constexpr std::size_t kWidestName = 20;  // longer ones shift their line

    std::string m_strHost;  // as it stands in front
    std::size_t m_nNameWidth;
};

class CFullFormat : public CTextFormat {
public:
    using CTextFormat::CTextFormat;

    void Append(Buffer& buffer, const FoundRecord& found) override {
        const LogRecord& record = found.record;
        const RecordType& type = TypeOf(record.nType);
        AppendRepaired(buffer, FileName(found.strPath), EControls::kDots);
        fmt::format_to(std::back_inserter(buffer), ":{} ", CDayStream::SlotOf(found.nNumber));
        AddTime(buffer, record, ' ');
        fmt::format_to(std::back_inserter(buffer), " {}[{}] ", Name(record), record.nIndex);
        AddColoured(buffer, type, fmt::format("{}[{}] ", type.szSeverity, record.nType), record);
    }
};

std::string JsonText(std::string_view strText) {
    return nlohmann::json(strText).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string JsonName(const std::string& strName) {
    return JsonText(strName);
}

class CJsonFormat : public CRecordFormat {
public:
    explicit CJsonFormat(const FormContext& context)
        : m_Names(context.names, JsonName),
          m_strAppliance(context.strHost.empty()
                             ? ""
                             : fmt::format(",\"appliance\":{}", JsonText(context.strHost))) {}

    void Append(Buffer& buffer, const FoundRecord& found) override {
        const LogRecord& record = found.record;
        Add(buffer, "{\"time\":\"");
        AddTime(buffer, record, 'T');
        fmt::format_to(
            std::back_inserter(buffer),
            "\",\"client\":{},\"name\":{},\"type\":{},\"severity\":\"{}\",\"text\":{}{}}}\n",
            record.nIndex, m_Names.Get(record.nIndex), record.nType,
            TypeOf(record.nType).szSeverity, JsonText(RecordText(record)), m_strAppliance);
    }

private:
    CWrittenNames m_Names;
    std::string m_strAppliance;  // a member; empty: none
};

std::string CsvField(std::string_view strText) {
    std::string strField = Repaired(strText, EControls::kKept);
    if (strField.find_first_of(",\"\r\n") == std::string::npos) {
        return strField;
    }
    for (std::size_t i = strField.find('"'); i != std::string::npos;
         i = strField.find('"', i + 2)) {
        strField.insert(i, 1, '"');
    }
    return '"' + strField + '"';
}

std::string CsvName(const std::string& strName) {
    return CsvField(strName);
}

class CCsvFormat : public CRecordFormat {
public:
    explicit CCsvFormat(const FormContext& context) : m_Names(context.names, CsvName) {}

    void AppendHeader(Buffer& buffer) override {
        Add(buffer, "time,client,name,type,severity,text\r\n");
    }

    void Append(Buffer& buffer, const FoundRecord& found) override {
        const LogRecord& record = found.record;
        AddTime(buffer, record, 'T');
        fmt::format_to(std::back_inserter(buffer), ",{},{},{},{},{}\r\n", record.nIndex,
                       m_Names.Get(record.nIndex), record.nType, TypeOf(record.nType).szSeverity,
                       CsvField(RecordText(record)));
    }

private:
    CWrittenNames m_Names;
};

// strText as a field of the syslog header: printable ASCII without blanks, nMost bytes at most.
std::string SyslogField(const std::string& strText, std::size_t nMost) {
    std::string strField = strText.substr(0, nMost);
    for (char& c : strField) {
        c = c > ' ' && c < '\x7F' ? c : '_';
    }
    return strField.empty() ? "-" : strField;
}

std::string AppName(const std::string& strName) {
    constexpr std::size_t kMostAppName = 48;
    return SyslogField(strName, kMostAppName);
}

std::string HostName() {
    constexpr std::size_t kMostHostName = 255;
    std::array<char, kMostHostName + 1> szName{};
    gethostname(szName.data(), kMostHostName);
    return SyslogField(szName.data(), kMostHostName);
}

class CSyslogFormat : public CRecordFormat {
public:
    explicit CSyslogFormat(const FormContext& context)
        : m_Names(context.names, AppName),
          m_strHost(context.strHost.empty() ? HostName() : context.strHost) {}

    void Append(Buffer& buffer, const FoundRecord& found) override {
        constexpr int kLocal0 = 16 * 8;
        const LogRecord& record = found.record;
        fmt::format_to(std::back_inserter(buffer), "<{}>1 ",
                       kLocal0 + TypeOf(record.nType).nSyslogSeverity);
        const std::string& strOffset = OffsetAt(record);
        if (strOffset.empty()) {
            Add(buffer, "-");
        } else {
            AddTime(buffer, record, 'T');
            Add(buffer, strOffset);
        }
        fmt::format_to(std::back_inserter(buffer), " {} {} - - - ", m_strHost,
                       m_Names.Get(record.nIndex));
        AppendRepaired(buffer, RecordText(record), EControls::kDots);
        Add(buffer, "\n");
    }

private:
    // How far local time was ahead of UTC at the record's time, as "+01:00"; empty: there is no
    // such time. Found once for records of the same minute.
    const std::string& OffsetAt(const LogRecord& record) {
        constexpr TimeStamp kMinute = 100;
        constexpr std::uint8_t kLastSecond = 59;
        static const std::string strNone;
        const TimeStamp nMinute = StampOf(record) / kMinute;
        if (nMinute != m_nMinute) {
            m_nMinute = nMinute;
            m_strOffset = FindOffset(record);
        }
        return record.bySecond <= kLastSecond ? m_strOffset : strNone;
    }

    static std::string FindOffset(const LogRecord& record) {
        std::tm tmTime{};
        tmTime.tm_year = record.wYear - 1900;
        tmTime.tm_mon = record.byMonth - 1;
        tmTime.tm_mday = record.byDay;
        tmTime.tm_hour = record.byHour;
        tmTime.tm_min = record.byMinute;
        tmTime.tm_isdst = -1;
        const std::tm tmWanted = tmTime;
        std::mktime(&tmTime);
        const bool bReal = tmTime.tm_mon == tmWanted.tm_mon && tmTime.tm_mday == tmWanted.tm_mday &&
                           record.byHour < 24 && record.byMinute < 60 && record.wYear <= 9999;
        const long nMinutes = tmTime.tm_gmtoff / 60;
        return bReal ? fmt::format("{}{:02}:{:02}", nMinutes < 0 ? '-' : '+',
                                   std::abs(nMinutes) / 60, std::abs(nMinutes) % 60)
                     : std::string();
    }

    CWrittenNames m_Names;
    std::string m_strHost;
    TimeStamp m_nMinute = 0;  // YYYYMMDDhhmm of m_strOffset
    std::string m_strOffset;
};

template <class TForm>
std::unique_ptr<CRecordFormat> Make(const FormContext& context) {
    return std::make_unique<TForm>(context);
}

constexpr std::array<RecordForm, 5> kForms = {{
    {"short", "short", "short", Make<CShortFormat>},
    {"full", "full (with file, slot and numbers)", nullptr, Make<CFullFormat>},
    {"json", "json (lines)", "json (a line each)", Make<CJsonFormat>},
    {"csv", "csv (RFC 4180)", nullptr, Make<CCsvFormat>},
    {"syslog", "syslog (RFC 5424)", "syslog (RFC 5424)", Make<CSyslogFormat>},
}};

}  // namespace

std::vector<const RecordForm*> RecordForms(EFormUse eUse) {
    std::vector<const RecordForm*> forms;
    for (const RecordForm& form : kForms) {
        if (eUse == EFormUse::kShow || form.szLiveHelp != nullptr) {
            forms.push_back(&form);
        }
    }
    return forms;
}

std::vector<std::string> RecordFormNames(EFormUse eUse) {
    std::vector<std::string> names;
    for (const RecordForm* pForm : RecordForms(eUse)) {
        names.emplace_back(pForm->szName);
    }
    return names;
}

std::string RecordFormHelp(EFormUse eUse) {
    std::string strHelp;
    const std::vector<const RecordForm*> forms = RecordForms(eUse);
    for (const RecordForm* pForm : forms) {
        const bool bLast = pForm == forms.back();
        strHelp += strHelp.empty() ? "" : bLast ? " or " : ", ";
        strHelp += eUse == EFormUse::kShow ? pForm->szHelp : pForm->szLiveHelp;
    }
    return strHelp;
}

std::unique_ptr<CRecordFormat> MakeRecordFormat(const std::string& strName,
                                                const FormContext& context) {
    for (const RecordForm& form : kForms) {
        if (strName == form.szName) {
            return form.pfnMake(context);
        }
    }
    throw std::invalid_argument(strName + ": no form of records");
}
