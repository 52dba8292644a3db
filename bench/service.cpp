// The service at rest and at its ends: how soon it listens, how soon it is gone, what it costs when
// nothing happens.
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Measure.h"
#include "core/UniqueFd.h"
#include "peers/Service.h"

namespace {

constexpr double kWantedStartMs = 50;
constexpr double kWantedStopMs = 200;
constexpr double kWantedIdlePercent = 0.5;  // of one processor

constexpr std::int64_t kLimitNs = 10'000'000'000;
constexpr std::int64_t kProbeGapNs = 50'000;
constexpr std::int64_t kSettleNs = 500'000'000;
constexpr std::int64_t kThreadTurnNs = 100'000'000;  // how often a waiting thread looks up

// Waits, on a thread of its own, for a UDP port of this machine to be bound. It asks the port
// itself: a datagram to one that is not bound is refused at once. The byte it sends is no record.
class CPortWatch {
public:
    explicit CPortWatch(std::uint16_t wPort)
        : m_Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(wPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
            0) {
            throw std::system_error(errno, std::generic_category(), "port watch");
        }
        m_Thread = std::thread([this] { Watch(); });
    }
    ~CPortWatch() {
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
    }
    CPortWatch(const CPortWatch&) = delete;
    CPortWatch& operator=(const CPortWatch&) = delete;

    // When the port was found open, as NowNs(); 0: not within ten seconds.
    std::int64_t OpenedAt() {
        m_Thread.join();
        return m_nOpened;
    }

private:
    void Watch() {
        const std::int64_t nEnd = NowNs() + kLimitNs;
        while (NowNs() < nEnd) {
            if (send(m_Socket.Get(), "?", 1, 0) == 1 && !WasRefused()) {
                m_nOpened = NowNs();
                return;
            }
            SleepNs(kProbeGapNs);
        }
    }

    bool WasRefused() const {
        int nError = 0;
        socklen_t nLen = sizeof(nError);
        getsockopt(m_Socket.Get(), SOL_SOCKET, SO_ERROR, &nError, &nLen);
        return nError != 0;
    }

    CUniqueFd m_Socket;
    std::int64_t m_nOpened = 0;
    std::thread m_Thread;
};

double Ms(std::int64_t nNs) {
    return static_cast<double>(nNs) * 1e-6;
}

// Starts the service; milliseconds from the fork to the open port.
double StartMs(CService& service, bool bDetached) {
    CPortWatch watch(service.RecordPort());
    const std::int64_t nBegin = NowNs();
    service.Launch(bDetached);
    const std::int64_t nOpened = watch.OpenedAt();
    if (nOpened == 0 || service.Pid() == 0) {
        throw std::runtime_error("the service does not start");
    }
    return Ms(nOpened - nBegin);
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

Json Memory(pid_t nPid) {
    const std::string strProcess = fmt::format("/proc/{}/", nPid);
    return {{"rss", ProcNumber(strProcess + "status", "VmRSS:")},
            {"pss", ProcNumber(strProcess + "smaps_rollup", "Pss:")},
            {"pss_anonymous", ProcNumber(strProcess + "smaps_rollup", "Pss_Anon:")}};
}

Json MeasureIdle(const BenchOptions& options) {
    Say(fmt::format("idle for {} s", options.dSeconds));
    CService service(options.strService);
    StartMs(service, true);
    SleepNs(kSettleNs);
    const auto before = UseOfProcess(service.Pid());
    const std::int64_t nBegin = NowNs();
    SleepNs(static_cast<std::int64_t>(options.dSeconds * 1e9));
    const auto after = UseOfProcess(service.Pid());
    const auto dElapsedNs = static_cast<double>(NowNs() - nBegin);
    if (before.size() != after.size()) {
        throw std::runtime_error("the service's threads changed while it was idle");
    }
    Json threads = Json::array();
    double dTotal = 0;
    for (std::size_t i = 0; i < after.size(); ++i) {
        const double dPercent =
            100 * static_cast<double>(after[i].nCpuNs - before[i].nCpuNs) / dElapsedNs;
        const double dWakeUps =
            1e9 * static_cast<double>(after[i].nWakeUps - before[i].nWakeUps) / dElapsedNs;
        dTotal += dPercent;
        threads.push_back({{"name", after[i].strName},
                           {"cpu_percent", Rounded(dPercent)},
                           {"wake_ups_per_s", Rounded(dWakeUps)}});
    }
    return {{"idle",
             {{"cpu_percent", Rounded(dTotal)},
              {"wanted_below", kWantedIdlePercent},
              {"met", dTotal < kWantedIdlePercent},
              {"threads", threads}}},
            {"memory_kib", Memory(service.Pid())}};
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
