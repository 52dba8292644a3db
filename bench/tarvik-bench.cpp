// tarvik-bench: what the service costs, beside bare loops of its system calls and beside other log
// daemons. docs/performance.md tells how to read what it prints.
#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Micro.h"
#include "bench/ReceiveBuffer.h"

namespace {

constexpr int kFailure = 1;
constexpr int kWrongUse = 2;

struct Bench {
    const char* szName;
    const char* szHelp;
    void (*pfnMeasure)(const BenchOptions&, CReport&);
};

constexpr std::array<Bench, 6> kBenches{{
    {"rest", "start, stop, memory, and what the service costs when nothing happens", MeasureRest},
    {"compare", "stored records, beside bare loops and log daemons", MeasureCompare},
    {"console", "real-time records on their way to the console", MeasureConsole},
    {"upload", "stored files and live records on their way to receivers", MeasureUpload},
    {"growth", "how the cost of a record grows", MeasureGrowth},
    {"show", "tarvik-log show: a full day, many days, following", MeasureShow},
}};

// The rows that are also drawn.
const std::vector<std::string> kDrawn = {"CPU of a stored record at 10,000/s",
                                         "Highest rate without loss, receive buffer",
                                         "Memory at rest, resident", "Wake-ups at rest"};

struct Output {
    std::string strJson;  // file for all that was measured; empty: none
    bool bBars = false;   // bars in front of the table
};

void Print(const CReport& report, const Output& output) {
    if (output.bBars) {
        fmt::print("```\n{}```\n\n", report.AsBars(kDrawn));
    }
    fmt::print("{}", report.AsMarkdown());
    if (!output.strJson.empty() &&
        !(std::ofstream(output.strJson) << report.AsJson().dump(2) << std::endl)) {
        throw std::runtime_error(fmt::format("--json: {} cannot be written", output.strJson));
    }
}

int Measure(const BenchOptions& options, const Output& output,
            const std::vector<const Bench*>& benches) {
    try {
        CReport report;
        for (const Bench* pBench : benches) {
            pBench->pfnMeasure(options, report);
        }
        Print(report, output);
    } catch (const std::exception& error) {
        fmt::print(stderr, "tarvik-bench: {}\n", error.what());
        return kFailure;
    }
    return 0;
}

void AddOptions(CLI::App& app, BenchOptions& options, Output& output) {
    app.add_option("--service", options.strService, "path of tarvik-logd")
        ->capture_default_str()
        ->check(CLI::ExistingFile);
    app.add_option("--static", options.strStatic, "path of its static build")
        ->check(CLI::ExistingFile);
    app.add_option("--daemons", options.strDaemons,
                   "directory that packages of log daemons were unpacked to")
        ->check(CLI::ExistingDirectory);
    app.add_option("--buffer", options.nBuffer,
                   "compare: also with this net.core.rmem_default, in bytes; root only, and it is "
                   "restored at the end")
        ->check(CLI::Range(std::int64_t{4096}, std::int64_t{1} << 30));
    app.add_option("--rounds", options.nRounds, "how often each measurement is repeated")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--seconds", options.dSeconds, "length of one measurement")
        ->check(CLI::Range(0.1, 600.0))
        ->capture_default_str();
    app.add_option("--json", output.strJson, "also writes all that was measured to this file");
    app.add_flag("--bars", output.bBars, "draws the chief figures in front of the table");
}

int ParseAndRun(int nArguments, char** szArguments) {
    BenchOptions options;
    Output output;
    options.strService = NextToThisProgram("tarvik-logd");
    CLI::App app{"Measures what the service costs; prints a table in Markdown.", "tarvik-bench"};
    app.require_subcommand(1)->fallthrough();
    AddOptions(app, options, output);
    std::vector<const Bench*> all;
    std::vector<std::pair<const CLI::App*, const Bench*>> subcommands;
    for (const Bench& bench : kBenches) {
        subcommands.emplace_back(app.add_subcommand(bench.szName, bench.szHelp), &bench);
        all.push_back(&bench);
    }
    const CLI::App* const pAll = app.add_subcommand("all", "all of these in one table");
    CLI::App* const pMicro = app.add_subcommand("micro", "single calls, by Google Benchmark");
    pMicro->allow_extras()->fallthrough(false);
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        fmt::print(stderr, "tarvik-bench: {}\n", error.what());
        return kWrongUse;
    }
    if (pMicro->parsed()) {
        return RunMicro(pMicro->remaining());
    }
    for (const auto& [pSubcommand, pBench] : subcommands) {
        if (pSubcommand->parsed()) {
            all = {pBench};
        }
    }
    static_cast<void>(pAll);
    return RunTidily([&] { return Measure(options, output, all); });
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-bench: %s\n", error.what());
        return kFailure;
    }
}
