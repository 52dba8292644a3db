#include "tools/ReadOptions.h"

#include <fmt/format.h>

#include <charconv>
#include <ctime>
#include <optional>

#include "reading/RecordTime.h"
#include "reading/RecordType.h"
#include "support/SystemPath.h"
#include "tools/Command.h"

namespace {

std::optional<std::int32_t> NumberIn(const std::string& strText) {
    std::int32_t nNumber = 0;
    const char* const pEnd = strText.data() + strText.size();
    const auto result = std::from_chars(strText.data(), pEnd, nNumber);
    return result.ec == std::errc() && result.ptr == pEnd ? std::optional(nNumber) : std::nullopt;
}

TimeStamp TimeIn(const char* szOption, const std::string& strText, std::time_t tNow) {
    const auto nStamp = ParseTime(strText, tNow);
    if (!nStamp) {
        throw WrongUse(fmt::format("{}: '{}' is no time; {}", szOption, strText, kTimeForms));
    }
    return *nStamp;
}

}  // namespace

void AddReadOptions(CLI::App& app, ReadOptions& options) {
    app.add_option("FILE", options.files, "day's files; none: all days in /hislog/ and /log/")
        ->type_name("");
    app.add_option("--since", options.strSince,
                   fmt::format("records stamped at this time or later: {}", kTimeForms));
    app.add_option("--until", options.strUntil, "records stamped at this time or earlier");
    app.add_option("--client", options.clients, "records of this client, by name or index")
        ->allow_extra_args(false);
    app.add_option("--type", options.types,
                   "records of this type: info, warning, error, debug, or its number")
        ->allow_extra_args(false);
    app.add_option("--grep", options.strPattern,
                   "records whose text matches this extended regular expression");
    app.add_flag("-i,--ignore-case", options.bIgnoreCase, "--grep takes no notice of case");
    app.add_option("--config", options.strConfig,
                   "log.conf that names the clients; default: /etc/tarvik/log/log.conf");
}

CClientNames MakeNames(const ReadOptions& options) {
    CClientNames names;
    if (options.strConfig.empty()) {
        // A machine that only reads files of others has none: clients are numbered then.
        (void)names.Load(SystemPath("/etc/tarvik/log/log.conf"));
    } else if (!names.Load(options.strConfig)) {
        throw WrongUse(fmt::format("--config: {} cannot be read", options.strConfig));
    }
    return names;
}

CRecordFilter MakeFilter(const ReadOptions& options, const CClientNames& names) {
    CRecordFilter filter;
    const std::time_t tNow = std::time(nullptr);
    for (const std::string& strClient : options.clients) {
        for (const std::int32_t nIndex : ClientsIn(strClient, names)) {
            filter.AddClient(nIndex);
        }
    }
    for (const std::string& strType : options.types) {
        filter.AddType(TypeIn(strType));
    }
    if (options.strSince) {
        filter.SetSince(TimeIn("--since", *options.strSince, tNow));
    }
    if (options.strUntil) {
        filter.SetUntil(TimeIn("--until", *options.strUntil, tNow));
    }
    if (options.strPattern) {
        const std::string strError = filter.SetPattern(*options.strPattern, options.bIgnoreCase);
        if (!strError.empty()) {
            throw WrongUse(fmt::format("--grep: '{}': {}", *options.strPattern, strError));
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
        throw WrongUse(
            fmt::format("--type: '{}' is none; 0 to 3, or info, warning, error, debug", strText));
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
        throw WrongUse(fmt::format("--client: '{}' is no index up to {} and no name in log.conf",
                                   strText, kMaxClientIndex));
    }
    return indexes;
}

std::vector<DayEntry> FilesToRead(const ReadOptions& options, CComplaints& complaints) {
    if (options.files.empty()) {
        return AllDayFiles(complaints);
    }
    std::vector<DayEntry> files;
    for (const std::string& strFile : options.files) {
        files.push_back({strFile, {}});
    }
    return files;
}
