// tarvik-log check: what is wrong with a log.conf, and whether the service would start with it.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "reading/Counted.h"
#include "reading/FileAccess.h"
#include "reading/Output.h"
#include "reading/ServiceConfig.h"
#include "reading/WrongUse.h"
#include "tools/Command.h"
#include "tools/ConfigCheck.h"

namespace {

using Json = nlohmann::ordered_json;

struct CheckOptions {
    std::string strPath = MachineConfig();
    std::string strOutput = "text";
};

const char* SeverityOf(const ConfigFinding& finding) {
    return finding.nStatus != 0 ? "error" : "warning";
}

std::string Verdict(const ConfigReport& report) {
    std::size_t nErrors = 0;
    for (const ConfigFinding& finding : report.findings) {
        nErrors += finding.nStatus != 0 ? 1 : 0;
    }
    const std::string strWarnings =
        Counted(report.findings.size() - nErrors, "warning", "warnings");
    if (report.nStatus == 0) {
        return fmt::format("the service would start ({})", strWarnings);
    }
    return fmt::format("the service would end with status {} ({}, {})", report.nStatus,
                       Counted(nErrors, "error", "errors"), strWarnings);
}

void AppendText(fmt::memory_buffer& buffer, const std::string& strPath,
                const ConfigReport& report) {
    for (const ConfigFinding& finding : report.findings) {
        fmt::format_to(std::back_inserter(buffer), "{}:{} {}: {}; {}\n", strPath,
                       finding.nLine != 0 ? fmt::format("{}:", finding.nLine) : "",
                       SeverityOf(finding), finding.strText, finding.strAdvice);
    }
    fmt::format_to(std::back_inserter(buffer), "{}: {}\n", strPath, Verdict(report));
}

void AppendJson(fmt::memory_buffer& buffer, const std::string& strPath,
                const ConfigReport& report) {
    Json json = {{"file", strPath},
                 {"starts", report.nStatus == 0},
                 {"status", report.nStatus},
                 {"findings", Json::array()}};
    for (const ConfigFinding& finding : report.findings) {
        json["findings"].push_back({{"line", finding.nLine},
                                    {"severity", SeverityOf(finding)},
                                    {"status", finding.nStatus},
                                    {"text", finding.strText},
                                    {"advice", finding.strAdvice}});
    }
    fmt::format_to(std::back_inserter(buffer), "{}\n",
                   json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

// That says nothing about the service, which runs as another user.
void RefuseForbidden(const std::string& strPath) {
    const std::string strWhy = WhyForbidden(strPath);
    if (!strWhy.empty()) {
        throw std::runtime_error(fmt::format("{} {}", strPath, strWhy));
    }
}

// A pipe would be empty at the second look.
void RefusePipes(const std::string& strPath) {
    std::error_code error;
    const auto type = std::filesystem::status(strPath, error).type();
    if (type == std::filesystem::file_type::fifo || type == std::filesystem::file_type::character) {
        throw WrongUse(fmt::format("{} is no file", strPath));
    }
}

int RunCheck(const CheckOptions& options) {
    EndQuietlyWithReader();
    RefusePipes(options.strPath);
    RefuseForbidden(options.strPath);
    const ConfigReport report = CheckConfig(options.strPath);
    COutput output;
    (options.strOutput == "json" ? AppendJson : AppendText)(output.Buffer(), options.strPath,
                                                            report);
    output.Flush();
    return report.nStatus;
}

constexpr const char* kCheckDetails =
    "Each finding is a line: where, error or warning, what is wrong, what to do. With warnings "
    "alone\n"
    "the service would start. Only the file is looked at: a port that another program has shows\n"
    "when the service is started.\n\n"
    "The exit status is the one that the service would end with (50, 52, 53, 55, 56 or 60), and 0\n"
    "when it would start.\n\n";

}  // namespace

Command AddCheck(CLI::App& app) {
    CLI::App* const pCheck = app.add_subcommand(
        "check",
        "Tells everything that is wrong with a log.conf, and whether the service would start.");
    const auto pOptions = std::make_shared<CheckOptions>();
    pCheck->add_option("CONF", pOptions->strPath, "the log.conf")->capture_default_str();
    pCheck->add_option("-o,--output", pOptions->strOutput, "text or json (one object)")
        ->check(CLI::IsMember({"text", "json"}).description(""))
        ->type_name("FORMAT")
        ->capture_default_str();
    SetExamples(*pCheck, {{"tarvik-log check", "the log.conf of this machine"},
                          {"tarvik-log check -o json log.conf",
                           "a file here; for programs: line, severity, status, text, advice of "
                           "each finding"}});
    pCheck->footer(kCheckDetails + pCheck->get_footer());
    return {pCheck, [pOptions] { return RunCheck(*pOptions); }};
}
