// A program of the appliance that logs as any other does, through libtarvik_log: records of all
// ordinary types at a steady rate, and real-time records for as long as the engineer wants them.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "logstore/LogRecord.h"
#include "reading/RecordType.h"
#include "tarvik_log.h"

namespace {

struct Options {
    std::string strName = "sample";
    std::uint16_t wPort = 0;
    std::uint16_t wControlPort = 0;
    std::int32_t nIndex = 0;
    double dRate = 20;
    double dSeconds = 3;
};

// One for each of kRecordTypes, in their order: info, warning, error, debug.
constexpr std::array<const char*, kRecordTypes.size()> kTexts = {
    "started, listening", "link to eth0 is slow", "request timed out", "42 requests served"};
static_assert(kTexts.back() != nullptr, "each type has a text");

// Told by the library whenever the engineer switches real-time records.
void SayRealTime(int nValue, void* pOptions) {
    fmt::print("{}: real-time records switched {}\n", static_cast<Options*>(pOptions)->strName,
               nValue != 0 ? "on" : "off");
    std::fflush(stdout);
}

struct Closer {
    void operator()(tarvik_log* pLog) const { tarvik_log_close(pLog); }
};
using Log = std::unique_ptr<tarvik_log, Closer>;

Log OpenLog(Options& options) {
    tarvik_log* pLog = nullptr;
    const int nError = tarvik_log_open(&pLog, options.nIndex, options.wPort, options.wControlPort);
    if (nError != 0) {
        throw std::system_error(-nError, std::generic_category(), "the log cannot be opened");
    }
    tarvik_log_on_realtime(pLog, SayRealTime, &options);
    return Log(pLog);
}

// What cannot be sent is counted by the library; the end tells.
void Write(tarvik_log* pLog, int nType, const std::string& strText) {
    static_cast<void>(tarvik_log_write(pLog, nType, strText.data(), strText.size()));
}

void Run(Options& options) {
    using Clock = std::chrono::steady_clock;
    const Log pLog = OpenLog(options);
    const auto tPause = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1 / options.dRate));
    const auto tEnd = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(options.dSeconds));
    int nSent = 0;
    for (auto tNext = Clock::now(); tNext < tEnd; tNext += tPause, ++nSent) {
        std::this_thread::sleep_until(tNext);
        const int nType = nSent % static_cast<int>(kTexts.size());
        Write(pLog.get(), nType,
              fmt::format("{} #{}: {}", options.strName, nSent,
                          kTexts[static_cast<std::size_t>(nType)]));
        if (tarvik_log_wants_realtime(pLog.get()) != 0) {
            Write(pLog.get(), TARVIK_LOG_REALTIME,
                  fmt::format("{} live #{}", options.strName, nSent));
        }
    }
    std::uint64_t nLost = 0;
    tarvik_log_stats(pLog.get(), nullptr, &nLost);
    if (nLost > 0) {
        throw std::runtime_error(fmt::format("{} records could not be sent", nLost));
    }
    fmt::print("{}: {} records sent\n", options.strName, nSent);
}

int ParseAndRun(int nArguments, char** szArguments) {
    Options options;
    CLI::App app{"Sends sample log records to tarvik-logd."};
    app.add_option("--port", options.wPort, "the service's UDP port on 127.0.0.1")->required();
    app.add_option("--control-port", options.wControlPort,
                   "UDP port on which to await control frames");
    app.add_option("--index", options.nIndex, "client index of the records")
        ->check(CLI::Range(0, kMaxClientIndex));
    app.add_option("--name", options.strName, "name used in the texts");
    app.add_option("--rate", options.dRate, "records per second")->check(CLI::PositiveNumber);
    app.add_option("--seconds", options.dSeconds, "how long to send")->check(CLI::PositiveNumber);
    try {
        app.parse(nArguments, szArguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    Run(options);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return ParseAndRun(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tarvik-sample-client: %s\n", error.what());
        return 1;
    }
}
