// tarvik-log stats: counts the records of day's files by client, type and hour.
#include <fmt/format.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/ConfigKeys.h"
#include "reading/Counted.h"
#include "reading/DayWalk.h"
#include "reading/Output.h"
#include "reading/RecordTime.h"
#include "reading/RecordType.h"
#include "reading/ServiceConfig.h"
#include "reading/TextRepair.h"
#include "support/ParseInt.h"
#include "tools/Command.h"
#include "tools/LiveStats.h"
#include "tools/ReadOptions.h"

namespace {

constexpr std::size_t kHours = 24;

struct Counts {
    std::uint64_t nRecords = 0;
    TimeStamp nFirst = std::numeric_limits<TimeStamp>::max();  // earliest stamp
    TimeStamp nLast = 0;
    std::map<std::int32_t, std::uint64_t> clients;
    std::map<std::int32_t, std::uint64_t> types;
    std::array<std::uint64_t, kHours> hours{};  // of the stamps, all days together
};

void Count(Counts& counts, const LogRecord& record) {
    ++counts.nRecords;
    counts.nFirst = std::min(counts.nFirst, StampOf(record));
    counts.nLast = std::max(counts.nLast, StampOf(record));
    ++counts.clients[record.nIndex];
    ++counts.types[record.nType];
    if (record.byHour < kHours) {
        ++counts.hours[record.byHour];
    }
}

std::string TimeText(TimeStamp nStamp, char cBetween) {
    const std::string strDigits = fmt::format("{:014}", nStamp);
    const auto Part = [&](std::size_t nEnd) {
        return strDigits.substr(strDigits.size() - nEnd, 2);
    };
    return fmt::format("{}-{}-{}{}{}:{}:{}", strDigits.substr(0, strDigits.size() - 10), Part(10),
                       Part(8), cBetween, Part(6), Part(4), Part(2));
}

// Width of the terminal; 80 columns where there is none.
std::size_t Columns() {
    constexpr std::size_t kDefault = 80;
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return size.ws_col;
    }
    const char* szColumns = std::getenv("COLUMNS");
    const int nColumns = szColumns == nullptr ? 0 : ParseInt(szColumns);
    return nColumns > 0 ? static_cast<std::size_t>(nColumns) : kDefault;
}

// Bars of nWidth columns at most, in eighths of a column where the terminal has such characters.
class CBars {
public:
    explicit CBars(std::size_t nWidth)
        : m_nWidth(nWidth), m_bBlocks(std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0) {}

    // dShare: 0 to 1 of the width; anything above 0 shows.
    std::string Bar(double dShare) const {
        constexpr std::array<const char*, 8> kParts = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
        constexpr std::size_t kEighths = kParts.size();
        const std::size_t nUnits = m_nWidth * (m_bBlocks ? kEighths : 1);
        auto nLength = static_cast<std::size_t>(std::lround(dShare * static_cast<double>(nUnits)));
        nLength = dShare > 0 ? std::max<std::size_t>(nLength, 1) : 0;
        if (!m_bBlocks) {
            return std::string(nLength, '#');
        }
        std::string strBar;
        for (std::size_t i = 0; i < nLength / kEighths; ++i) {
            strBar += "█";
        }
        return strBar + kParts[nLength % kEighths];
    }

private:
    std::size_t m_nWidth;
    bool m_bBlocks;
};

struct Row {
    std::string strLabel;
    std::uint64_t nRecords;
};

void AppendTable(fmt::memory_buffer& buffer, const char* szTitle, const std::vector<Row>& rows) {
    constexpr std::size_t kLeastBar = 10;
    std::size_t nLabel = 0;
    std::uint64_t nMost = 1;
    for (const Row& row : rows) {
        nLabel = std::max(nLabel, row.strLabel.size());
        nMost = std::max(nMost, row.nRecords);
    }
    const std::size_t nNumber = std::to_string(nMost).size();
    const std::size_t nTaken = 2 + nLabel + 2 + nNumber + 2;
    const std::size_t nColumns = Columns();
    const CBars bars(nColumns > nTaken + kLeastBar ? nColumns - nTaken : kLeastBar);
    fmt::format_to(std::back_inserter(buffer), "\n{}\n", szTitle);
    for (const Row& row : rows) {
        const double dShare = static_cast<double>(row.nRecords) / static_cast<double>(nMost);
        fmt::format_to(std::back_inserter(buffer), "  {:<{}}  {:>{}}{}{}\n", row.strLabel, nLabel,
                       row.nRecords, nNumber, row.nRecords > 0 ? "  " : "", bars.Bar(dShare));
    }
}

std::string TypeLabel(std::int32_t nType) {
    const RecordType& type = TypeOf(nType);
    return &type == &kUnknownType ? fmt::format("type {}", nType) : type.szSeverity;
}

void AppendText(fmt::memory_buffer& buffer, const Counts& counts, const CClientNames& names) {
    if (counts.nRecords == 0) {
        fmt::format_to(std::back_inserter(buffer), "No records.\n");
        return;
    }
    fmt::format_to(std::back_inserter(buffer), "{} from {} to {}\n",
                   Counted(counts.nRecords, "record", "records"), TimeText(counts.nFirst, ' '),
                   TimeText(counts.nLast, ' '));
    std::vector<Row> clients;
    for (const auto& [nIndex, nRecords] : counts.clients) {
        clients.push_back({Repaired(names.Name(nIndex), EControls::kDots), nRecords});
    }
    std::vector<Row> types;
    for (const auto& [nType, nRecords] : counts.types) {
        types.push_back({TypeLabel(nType), nRecords});
    }
    std::vector<Row> hours;
    for (std::size_t i = 0; i < kHours; ++i) {
        hours.push_back({fmt::format("{:02}", i), counts.hours[i]});
    }
    AppendTable(buffer, "By client", clients);
    AppendTable(buffer, "By type", types);
    AppendTable(buffer, "By hour", hours);
}

// {"records":2,"first":"2026-11-22T14:05:09","last":...,"clients":[{"client":1,"name":"beta",
// "records":2}],"types":[{"type":2,"severity":"error","records":2}],"hours":[{"hour":0,
// "records":0}, ...]}; first and last are null without records.
void AppendJson(fmt::memory_buffer& buffer, const Counts& counts, const CClientNames& names) {
    using Json = nlohmann::ordered_json;
    const bool bAny = counts.nRecords > 0;
    Json json = {{"records", counts.nRecords},
                 {"first", bAny ? Json(TimeText(counts.nFirst, 'T')) : Json()},
                 {"last", bAny ? Json(TimeText(counts.nLast, 'T')) : Json()},
                 {"clients", Json::array()},
                 {"types", Json::array()},
                 {"hours", Json::array()}};
    for (const auto& [nIndex, nRecords] : counts.clients) {
        json["clients"].push_back(
            {{"client", nIndex}, {"name", names.Name(nIndex)}, {"records", nRecords}});
    }
    for (const auto& [nType, nRecords] : counts.types) {
        json["types"].push_back(
            {{"type", nType}, {"severity", TypeOf(nType).szSeverity}, {"records", nRecords}});
    }
    for (std::size_t i = 0; i < kHours; ++i) {
        json["hours"].push_back({{"hour", i}, {"records", counts.hours[i]}});
    }
    fmt::format_to(std::back_inserter(buffer), "{}\n",
                   json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

struct StatsOptions {
    RecordQuery read;
    std::string strOutput = "text";
    bool bLive = false;
    LiveStatsOptions live;
};

int RunLive(StatsOptions& options) {
    const std::string strConfig =
        options.read.strConfig.empty() ? MachineConfig() : options.read.strConfig;
    if (options.live.wPort == 0) {
        options.live.wPort = CServiceConfig(strConfig).Port(kPortSection, kClientPortKey, "--port");
    }
    options.live.bJson = options.strOutput == "json";
    EndQuietlyWithReader();
    return RunLiveStats(options.live);
}

int RunStats(const StatsOptions& options) {
    std::setlocale(LC_CTYPE, "");  // for --grep, and for what the terminal can show
    EndQuietlyWithReader();
    CComplaints complaints("tarvik-log stats");
    const CClientNames names = options.read.Names();
    const CRecordFilter filter = options.read.Filter(names);
    Counts counts;
    CDayWalk(options.read.FilesToRead(complaints), complaints)
        .Forward({}, [&](const FoundRecord& found) {
            if (filter.Accepts(found.record)) {
                Count(counts, found.record);
            }
            return true;
        });
    COutput output;
    (options.strOutput == "json" ? AppendJson : AppendText)(output.Buffer(), counts, names);
    output.Flush();
    return complaints.ExitStatus();
}

void AddLiveOptions(CLI::App& app, StatsOptions& options) {
    CLI::Option* const pLive = app.add_flag(
        "--live", options.bLive,
        "instead: records stored, and dropped by the kernel in front of the service, each second "
        "until Ctrl-C");
    for (const char* szOption : {"FILE", "--since", "--until", "--client", "--type", "--grep"}) {
        pLive->excludes(app.get_option(szOption));
    }
    app.add_option("--seconds", options.live.dSeconds, "end after so many")
        ->needs(pLive)
        ->check(Seconds())
        ->type_name("S");
    app.add_option("--port", options.live.wPort,
                   "UDP port of the service; without it, PortFromClient of the log.conf")
        ->needs(pLive)
        ->check(Port())
        ->type_name("PORT");
}

}  // namespace

Command AddStats(CLI::App& app) {
    CLI::App* pApp = app.add_subcommand(
        "stats", "Counts the records of day's files by client, type and hour of the day.");
    const auto pOptions = std::make_shared<StatsOptions>();
    AddReadOptions(*pApp, pOptions->read);
    pApp->add_option("-o,--output", pOptions->strOutput, "text (with bars) or json")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
    AddLiveOptions(*pApp, *pOptions);
    SetExamples(*pApp, {{"tarvik-log stats", "all days"},
                        {"tarvik-log stats --since today --type error", "today's errors"},
                        {"tarvik-log stats -o json", "the numbers, for programs"},
                        {"tarvik-log stats --live --seconds 10",
                         "what is stored and what the kernel drops, for ten seconds"}});
    return {pApp,
            [pOptions] { return pOptions->bLive ? RunLive(*pOptions) : RunStats(*pOptions); }};
}
