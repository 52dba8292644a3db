// What was measured: rows of figures for whoever is compared, each with what is wanted of the
// service and whether it is met. A figure is measured and judged once, here; the table and the bars
// of docs/performance.md are this report as text.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using Json = nlohmann::ordered_json;

// Who is compared, as the columns of the table name them; log daemons go by their names. Others are
// told beside what is wanted.
inline constexpr const char* kService = "service";
inline constexpr const char* kLinked = "with the agent's link";
inline constexpr const char* kStatic = "static build";
inline constexpr const char* kBare = "bare loop";
inline constexpr const char* kBareThreads = "bare loop, two threads";

enum class Relation { kAtMost, kAtLeast, kBelow };

// What is wanted: the service's value, or its ratio to another's, against a limit.
struct Wanted {
    Relation relation = Relation::kAtMost;
    double dLimit = 0;
    std::string strOf;  // column that the ratio is to; empty: the value itself
};

// The values of one who is measured, round by round.
struct MeasuredRounds {
    std::string strName;  // column
    std::vector<double> values;
    bool bAtLeast = false;  // the sender was the limit: more might have been reached
};

class CReport {
public:
    // A row with the medians. With a wanted ratio it is taken round by round, and the row tells its
    // median, lowest and highest.
    void Add(const std::string& strFigure, const std::vector<MeasuredRounds>& rounds);
    void Add(const std::string& strFigure, const std::vector<MeasuredRounds>& rounds,
             const Wanted& wanted);

    // Who is not compared, and why; and how a figure grows with something.
    void AddAbsent(const std::string& strName, const std::string& strWhy);
    void AddGrowth(const std::string& strTitle, const Json& rows) {
        m_Json["growth"].push_back({{"title", strTitle}, {"rows", rows}});
    }

    const Json& AsJson() const { return m_Json; }

    // All of it as Markdown; and rows of it drawn as bars, those whose figure begins so.
    std::string AsMarkdown() const;
    std::string AsBars(const std::vector<std::string>& figures) const;

private:
    Json m_Json = {{"rows", Json::array()}};
};
