#include "reading/RecordQuery.h"

#include <fmt/format.h>

#include <charconv>
#include <ctime>

#include "reading/FileAccess.h"
#include "reading/Output.h"
#include "reading/RecordTime.h"
#include "reading/RecordType.h"
#include "reading/ServiceConfig.h"
#include "reading/WrongUse.h"

namespace {

std::optional<std::int32_t> NumberIn(const std::string& strText) {
    std::int32_t nNumber = 0;
    const char* const pEnd = strText.data() + strText.size();
    const auto result = std::from_chars(strText.data(), pEnd, nNumber);
    return result.ec == std::errc() && result.ptr == pEnd ? std::optional(nNumber) : std::nullopt;
}

TimeStamp TimeIn(const char* szName, const std::string& strText, std::time_t tNow) {
    const auto nStamp = ParseTime(strText, tNow);
    if (!nStamp) {
        throw WrongUse(szName, fmt::format("'{}' is no time; {}", strText, kTimeForms));
    }
    return *nStamp;
}

}  // namespace

CClientNames RecordQuery::Names() const {
    CClientNames names;
    if (strConfig.empty()) {
        // A machine that only reads files of others has none: clients are numbered then.
        const std::string strWhy = names.Load(MachineConfig()) ? "" : WhyForbidden(MachineConfig());
        if (!strWhy.empty()) {
            SayError(fmt::format("{} {}; clients go by their numbers", MachineConfig(), strWhy));
        }
    } else if (!names.Load(strConfig)) {
        const std::string strWhy = WhyForbidden(strConfig);
        throw WrongUse("config",
                       fmt::format("{} {}", strConfig, strWhy.empty() ? "cannot be read" : strWhy));
    }
    return names;
}

CRecordFilter RecordQuery::Filter(const CClientNames& names) const {
    CRecordFilter filter;
    const std::time_t tNow = std::time(nullptr);
    for (const std::string& strClient : clients) {
        for (const std::int32_t nIndex : ClientsIn(strClient, names)) {
            filter.AddClient(nIndex);
        }
    }
    for (const std::string& strType : types) {
        filter.AddType(TypeIn(strType));
    }
    if (strSince) {
        filter.SetSince(TimeIn("since", *strSince, tNow));
    }
    if (strUntil) {
        filter.SetUntil(TimeIn("until", *strUntil, tNow));
    }
    if (strPattern) {
        const std::string strError = filter.SetPattern(*strPattern, bIgnoreCase);
        if (!strError.empty()) {
            throw WrongUse("grep", fmt::format("'{}': {}", *strPattern, strError));
        }
    }
    return filter;
}

std::int32_t TypeIn(const std::string& strText) {
    for (const RecordType& type : kRecordTypes) {
        if (strText == type.szSeverity) {
            return type.nType;
        }
    }
    const auto nType = NumberIn(strText);
    if (!nType || *nType > kMaxOrdinaryType) {
        throw WrongUse("type", fmt::format("'{}' is none; {}, or {}", strText, RecordTypeNumbers(),
                                           RecordTypeNames()));
    }
    return *nType;
}

std::vector<std::int32_t> ClientsIn(const std::string& strText, const CClientNames& names) {
    const auto nIndex = NumberIn(strText);
    if (nIndex && *nIndex <= kMaxClientIndex) {
        return {*nIndex};
    }
    std::vector<std::int32_t> indexes = names.IndexesOf(strText);
    if (indexes.empty()) {
        throw WrongUse("client", fmt::format("'{}' is no index up to {} and no name in log.conf",
                                             strText, kMaxClientIndex));
    }
    return indexes;
}

std::vector<DayEntry> RecordQuery::FilesToRead(CComplaints& complaints) const {
    if (files.empty()) {
        return AllDayFiles(complaints);
    }
    std::vector<DayEntry> entries;
    for (const std::string& strFile : files) {
        entries.push_back({strFile, {}});
    }
    return entries;
}
