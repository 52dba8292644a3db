// A program of the appliance as the service sees it: logs records of all ordinary types at a steady
// rate, and streams real-time records for as long as a control frame has switched them on.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

#include "tools/LogClient.h"

namespace {

struct Options {
    std::string strName = "sample";
    std::uint16_t wPort = 0;
    std::uint16_t wControlPort = 0;
    std::int32_t nIndex = 0;
    double dRate = 20;
    double dSeconds = 3;
};

constexpr const char* kTexts[] = {"started, listening", "link to eth0 is slow", "request timed out",
                                  "42 requests served"};

// Takes over what a control frame says: true while real-time records are wanted.
bool ObeyControl(CLogClient& client, bool bStreaming, const Options& options) {
    const auto frame = client.ReceiveControl(0);
    if (!frame || frame->dwCommand != LOGC_CMD_REALTIME) {
        return bStreaming;
    }
    const bool bWanted = frame->dwParam2 != 0;
    if (bWanted != bStreaming) {
        fmt::print("{}: real-time records switched {}\n", options.strName, bWanted ? "on" : "off");
        std::fflush(stdout);
    }
    return bWanted;
}

void Run(const Options& options) {
    using Clock = std::chrono::steady_clock;
    CLogClient client(options.wPort, options.wControlPort);
    const auto tPause = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(1 / options.dRate));
    const auto tEnd = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(options.dSeconds));
    int nSent = 0;
    bool bStreaming = false;
    for (auto tNext = Clock::now(); tNext < tEnd; tNext += tPause, ++nSent) {
        std::this_thread::sleep_until(tNext);
        const int nType = nSent % (kMaxOrdinaryType + 1);
        client.Send(MakeRecord(options.nIndex, nType,
                               fmt::format("{} #{}: {}", options.strName, nSent, kTexts[nType])));
        bStreaming = ObeyControl(client, bStreaming, options);
        if (bStreaming) {
            client.Send(MakeRecord(options.nIndex, kRealTimeType,
                                   fmt::format("{} live #{}", options.strName, nSent)));
        }
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
