// The service at rest and at its ends: how soon it listens, how soon it is gone, what it costs when
// nothing happens.
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Measure.h"
#include "bench/OpenWatch.h"
#include "bench/Rest.h"
#include "peers/Service.h"
#include "support/UniqueFd.h"

namespace {

constexpr double kWantedStartMs = 5;
constexpr double kWantedStopMs = 200;
constexpr double kWantedIdlePercent = 0.3;  // of one processor

constexpr std::int64_t kLimitNs = 10'000'000'000;
constexpr std::int64_t kThreadTurnNs = 100'000'000;  // how often a waiting thread looks up

// Starts the service; milliseconds from the fork to the open port.
double StartMs(CService& service, bool bDetached) {
    const double dMs =
        MsUntilOpen(UdpPortProbe(service.RecordPort()), [&] { service.Launch(bDetached); });
    if (service.Pid() == 0) {
        throw std::runtime_error("the service does not start");
    }
    return dMs;
}

// Milliseconds from SIGTERM to the end of the process.
double StopMs(CService& service) {
    // By its number: this system's <sys/pidfd.h> cannot be used from C++.
    const CUniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, service.Pid(), 0)));
    pollfd waiting{process.Get(), POLLIN, 0};
    const std::int64_t nBegin = NowNs();
    service.Signal(SIGTERM);
    poll(&waiting, 1, static_cast<int>(Ms(kLimitNs)));
    const std::int64_t nEnd = NowNs();
    const auto nStatus = service.Wait();
    if (nStatus != 0) {
        throw std::runtime_error("the service does not stop with status 0");
    }
    return Ms(nEnd - nBegin);
}

// dCompared: the one of the figures that is held against what is wanted.
Json Summary(const std::vector<double>& valuesMs, double dCompared, double dWanted) {
    return {{"median", Rounded(Median(valuesMs))},
            {"max", Rounded(Maximum(valuesMs))},
            {"wanted_below", dWanted},
            {"met", dCompared < dWanted}};
}

// Starts and stops, each SIGTERM at another moment of the threads' waiting.
Json MeasureLife(const BenchOptions& options, bool bDetached) {
    std::mt19937 rng(41);
    std::uniform_int_distribution<std::int64_t> wait(0, kThreadTurnNs);
    std::vector<double> starts;
    std::vector<double> stops;
    for (int nRound = 0; nRound < options.nRounds; ++nRound) {
        Say(fmt::format("start and stop {}: round {} of {}",
                        bDetached ? "detached" : "in the foreground", nRound + 1, options.nRounds));
        CService service(options.strService);
        starts.push_back(StartMs(service, bDetached));
        SleepNs(2 * kThreadTurnNs + wait(rng));
        stops.push_back(StopMs(service));
    }
    return {{"start_to_open_port_ms", Summary(starts, Median(starts), kWantedStartMs)},
            {"sigterm_to_exit_ms", Summary(stops, Maximum(stops), kWantedStopMs)}};
}

Json MeasureIdle(const BenchOptions& options) {
    Say(fmt::format("idle for {} s", options.dSeconds));
    CService service(options.strService);
    StartMs(service, true);
    SleepNs(kSettleNs);
    const CIdleMeter meter(service.Pid());
    SleepNs(static_cast<std::int64_t>(options.dSeconds * 1e9));
    Json idle = meter.Read();
    idle["wanted_below"] = kWantedIdlePercent;
    idle["met"] = idle["cpu_percent"] < kWantedIdlePercent;
    return {{"idle", idle}, {"memory_kib", MemoryOf(service.Pid())}};
}

Json Run(const BenchOptions& options) {
    Json result;
    result["service"] = options.strService;
    result["rounds"] = options.nRounds;
    result["seconds"] = options.dSeconds;
    result["foreground"] = MeasureLife(options, false);
    result["detached"] = MeasureLife(options, true);
    result.update(MeasureIdle(options));
    return result;
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    options.strName = "tarvik-bench-service";
    options.strDescription =
        "Measures how soon the service listens and ends, and what it costs at rest. Prints one "
        "JSON object.";
    options.nRounds = 20;
    options.dSeconds = 5;
    return BenchMain(argc, argv, options, Run);
}
