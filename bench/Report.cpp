#include "bench/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>

#include "bench/Measure.h"

namespace {

// A number as people write it: 12,345 from 100 on, else with at most three decimals.
std::string Readable(double dValue) {
    if (std::abs(dValue) < 100) {
        return fmt::format("{:.3g}", dValue);
    }
    std::string strDigits = fmt::format("{:.0f}", dValue);
    for (std::size_t nAt = strDigits.size(); nAt > 3;) {
        nAt -= 3;
        strDigits.insert(nAt, 1, ',');
    }
    return strDigits;
}

double Rounded(double dValue) {
    return std::round(dValue * 1000) / 1000;
}

bool IsMet(double dValue, const Wanted& wanted) {
    switch (wanted.relation) {
        case Relation::kAtMost:
            return dValue <= wanted.dLimit;
        case Relation::kAtLeast:
            return dValue >= wanted.dLimit;
        case Relation::kBelow:
            return dValue < wanted.dLimit;
    }
    return false;
}

const char* TextOf(Relation relation) {
    return relation == Relation::kAtMost    ? "at most"
           : relation == Relation::kAtLeast ? "at least"
                                            : "below";
}

const MeasuredRounds* Find(const std::vector<MeasuredRounds>& rounds, const std::string& strName) {
    const auto itFound = std::find_if(rounds.begin(), rounds.end(), [&](const MeasuredRounds& one) {
        return one.strName == strName;
    });
    return itFound == rounds.end() ? nullptr : &*itFound;
}

std::vector<double> Ratios(const MeasuredRounds& first, const MeasuredRounds& second) {
    std::vector<double> ratios;
    std::transform(first.values.begin(), first.values.end(), second.values.begin(),
                   std::back_inserter(ratios), std::divides<>());
    return ratios;
}

// Of those who have a column, the ones that any row has a value for.
std::vector<std::string> ColumnsOf(const Json& rows) {
    std::vector<std::string> columns;
    for (const char* szName : {kService, kLinked, kStatic, kBare, kBareThreads, "rsyslogd",
                               "syslog-ng", "busybox", "dlt-daemon"}) {
        if (std::any_of(rows.begin(), rows.end(),
                        [szName](const Json& row) { return row["of"].contains(szName); })) {
            columns.emplace_back(szName);
        }
    }
    return columns;
}

std::string Cell(const Json& row, const std::string& strColumn) {
    if (!row["of"].contains(strColumn)) {
        return "";
    }
    const bool bAtLeast = row.contains("at_least") && row["at_least"].contains(strColumn);
    return fmt::format("{}{}", bAtLeast ? "at least " : "", Readable(row["of"][strColumn]));
}

std::string WantedCells(const Json& row) {
    if (!row.contains("wanted")) {
        return " | |";
    }
    const Json& wanted = row["wanted"];
    const std::string strOf = wanted["of"];
    std::string strResult = wanted["met"] ? "met" : "**missed**";
    if (!strOf.empty()) {
        strResult = fmt::format("{:.2f} ({:.2f} to {:.2f}): {}", double(wanted["value"]),
                                double(wanted["lowest"]), double(wanted["highest"]), strResult);
    }
    return fmt::format(" {} {}{} | {} |", std::string(wanted["relation"]),
                       Readable(wanted["limit"]), strOf.empty() ? "" : fmt::format(" x {}", strOf),
                       strResult);
}

std::string GrowthTable(const Json& growth) {
    constexpr double kWidth = 40;
    double dMost = 0;
    for (const Json& row : growth["rows"]) {
        dMost = std::max(dMost, double(row["cpu_us"]));
    }
    std::string strText = fmt::format(
        "\n| {} | CPU of a record, µs | intake thread alone, µs | lost | "
        "|\n|---|--:|--:|--:|---|\n",
        std::string(growth["title"]));
    for (const Json& row : growth["rows"]) {
        const auto nBar =
            static_cast<std::size_t>(std::lround(double(row["cpu_us"]) / dMost * kWidth));
        strText += fmt::format("| {} | {} | {} | {} | `{}` |\n", std::string(row["with"]),
                               Readable(row["cpu_us"]), Readable(row["intake_cpu_us"]),
                               std::int64_t(row["lost"]), std::string(nBar, '#'));
    }
    return strText;
}

// A bar of a length between 0 and 1, in eighths of a character.
std::string Bar(double dShare) {
    constexpr double kWidth = 40;
    constexpr int kEighths = 8;
    static const char* const kParts[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
    const auto nEighths = static_cast<int>(std::lround(dShare * kWidth * kEighths));
    std::string strBar;
    for (int i = 0; i < nEighths / kEighths; ++i) {
        strBar += "█";
    }
    return strBar + kParts[nEighths % kEighths];
}

std::string BarsOf(const Json& row) {
    double dMost = 0;
    std::size_t nWidth = 0;
    for (const auto& [strName, value] : row["of"].items()) {
        dMost = std::max(dMost, double(value));
        nWidth = std::max(nWidth, strName.size());
    }
    std::string strText = fmt::format("{}\n", std::string(row["figure"]));
    for (const auto& [strName, value] : row["of"].items()) {
        strText += fmt::format("  {:<{}}  {} {}\n", strName, nWidth,
                               Bar(dMost > 0 ? double(value) / dMost : 0), Cell(row, strName));
    }
    return strText;
}

}  // namespace

void CReport::Add(const std::string& strFigure, const std::vector<MeasuredRounds>& rounds) {
    Json row = {{"figure", strFigure}, {"of", Json::object()}};
    for (const MeasuredRounds& one : rounds) {
        row["of"][one.strName] = Rounded(Median(one.values));
        if (one.bAtLeast) {
            row["at_least"][one.strName] = true;
        }
    }
    m_Json["rows"].push_back(row);
}

void CReport::Add(const std::string& strFigure, const std::vector<MeasuredRounds>& rounds,
                  const Wanted& wanted) {
    Add(strFigure, rounds);
    const MeasuredRounds* const pService = Find(rounds, kService);
    const MeasuredRounds* const pOther = Find(rounds, wanted.strOf);
    if (pService == nullptr || (pOther == nullptr && !wanted.strOf.empty())) {
        return;  // nobody to hold it against
    }
    const std::vector<double> values =
        pOther == nullptr ? pService->values : Ratios(*pService, *pOther);
    const double dValue = Rounded(Median(values));
    m_Json["rows"].back()["wanted"] = {{"relation", TextOf(wanted.relation)},
                                       {"limit", wanted.dLimit},
                                       {"of", wanted.strOf},
                                       {"value", dValue},
                                       {"lowest", Rounded(Percentile(values, 0))},
                                       {"highest", Rounded(Maximum(values))},
                                       {"met", IsMet(dValue, wanted)}};
}

void CReport::AddAbsent(const std::string& strName, const std::string& strWhy) {
    m_Json["absent"][strName] = strWhy;
}

std::string CReport::AsMarkdown() const {
    const std::vector<std::string> columns = ColumnsOf(m_Json["rows"]);
    std::string strText = fmt::format(
        "| Figure | {} | wanted of the service | |\n|---|{}---|---|\n", fmt::join(columns, " | "),
        fmt::join(std::vector<std::string>(columns.size(), "--:|"), ""));
    for (const Json& row : m_Json["rows"]) {
        strText += fmt::format("| {} |", std::string(row["figure"]));
        for (const std::string& strColumn : columns) {
            strText += fmt::format(" {} |", Cell(row, strColumn));
        }
        strText += fmt::format("{}\n", WantedCells(row));
    }
    if (m_Json.contains("absent")) {
        for (const auto& [strName, why] : m_Json["absent"].items()) {
            strText += fmt::format("\n{}: {}.\n", strName, std::string(why));
        }
    }
    if (m_Json.contains("growth")) {
        for (const Json& growth : m_Json["growth"]) {
            strText += GrowthTable(growth);
        }
    }
    return strText;
}

std::string CReport::AsBars(const std::vector<std::string>& figures) const {
    std::string strText;
    for (const std::string& strFigure : figures) {
        for (const Json& row : m_Json["rows"]) {
            if (std::string(row["figure"]).starts_with(strFigure)) {
                strText += fmt::format("{}{}", strText.empty() ? "" : "\n", BarsOf(row));
                break;
            }
        }
    }
    return strText;
}
