#include "bench/BenchMain.h"

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <exception>
#include <filesystem>
#include <functional>
#include <iterator>

#include "bench/Measure.h"
#include "bench/ReceiveBuffer.h"

namespace {

int WrongUse(const BenchOptions& options, const std::string& strReason) {
    fmt::print(stderr, "{}: {}\n", options.strName, strReason);
    return 2;
}

int MeasureAndPrint(const BenchOptions& options,
                    const std::function<Json(const BenchOptions&)>& measure) {
    try {
        fmt::print("{}\n", measure(options).dump(2));
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: {}\n", options.strName, error.what());
        return 1;
    }
    return 0;
}

}  // namespace

std::string NextToThisProgram(const std::string& strFile) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / strFile;
}

int BenchMain(int nArguments, char** szArguments, BenchOptions options,
              const std::function<Json(const BenchOptions&)>& measure) {
    options.strService = NextToThisProgram("tarvik-logd");
    CLI::App app{options.strDescription, options.strName};
    app.add_option("--service", options.strService, "path of tarvik-logd")->capture_default_str();
    app.add_option("--rounds", options.nRounds, "how often each measurement is repeated")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--seconds", options.dSeconds, "length of one measurement")
        ->check(CLI::Range(0.1, 600.0))
        ->capture_default_str();
    if (options.addOptions) {
        options.addOptions(app);
    }
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return WrongUse(options, error.what());
    }
    if (access(options.strService.c_str(), X_OK) != 0 ||
        !std::filesystem::is_regular_file(options.strService)) {
        return WrongUse(options, fmt::format("--service: {} is no program", options.strService));
    }
    return RunTidily([&] { return MeasureAndPrint(options, measure); });
}

void Say(const std::string& strText) {
    static const bool bTerminal = isatty(STDERR_FILENO) == 1;
    if (bTerminal) {
        fmt::print(stderr, "{}\n", strText);
    }
}

void SayRound(const std::string& strWhat, int nRound, int nRounds) {
    Say(fmt::format("{}: round {} of {}", strWhat, nRound, nRounds));
}

double Rounded(double dValue) {
    return std::round(dValue * 1000) / 1000;
}

Json CompareRounds(const MeasuredRounds& first, const MeasuredRounds& second) {
    std::vector<double> ratios;
    std::transform(first.values.begin(), first.values.end(), second.values.begin(),
                   std::back_inserter(ratios), std::divides<>());
    return {{first.strName, Rounded(Median(first.values))},
            {second.strName, Rounded(Median(second.values))},
            {"ratio", Rounded(Median(ratios))},
            {"ratio_lowest", Rounded(Percentile(ratios, 0))},
            {"ratio_highest", Rounded(Maximum(ratios))}};
}
