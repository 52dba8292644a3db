// The service at rest and at its ends: how soon it listens, how soon it is gone, what it takes when
// nothing happens.
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/Benches.h"
#include "bench/Field.h"
#include "bench/Measure.h"
#include "bench/OpenWatch.h"
#include "bench/Rest.h"
#include "peers/Agent.h"
#include "support/UniqueFd.h"

namespace {

constexpr double kIdleSeconds = 5;                 // at least
constexpr int kStopsPerRound = 20;                 // the longest of them all is told
constexpr std::int64_t kMostWaitNs = 200'000'000;  // between start and stop
constexpr std::int64_t kLimitNs = 10'000'000'000;

// Milliseconds from SIGTERM to the end of the process.
double StopMs(CService& service) {
    // By its number: this system's <sys/pidfd.h> cannot be used from C++.
    const CUniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, service.Pid(), 0)));
    pollfd waiting{process.Get(), POLLIN, 0};
    const std::int64_t nBegin = NowNs();
    service.Signal(SIGTERM);
    poll(&waiting, 1, static_cast<int>(Ms(kLimitNs)));
    const std::int64_t nEnd = NowNs();
    if (service.Wait() != 0) {
        throw std::runtime_error("the service does not stop with status 0");
    }
    return Ms(nEnd - nBegin);
}

// Everything that rests, fresh from its start, at the same time.
class CResting {
public:
    CResting(const BenchOptions& options, const std::vector<NamedDaemon>& daemons) {
        AddService(kService, options.strService, 0);
        AddService(kLinked, options.strService, m_Agent.Port());
        m_Agent.Register();
        if (!options.strStatic.empty()) {
            AddService(kStatic, options.strStatic, 0);
        }
        m_pBare = std::make_unique<CBareIntake>(m_Services.front()->Path("/bare.log"));
        m_Who.emplace_back(kBare, m_pBare->Get().nPid);
        for (const NamedDaemon& daemon : daemons) {
            m_Daemons.push_back(std::make_unique<CLogDaemon>(daemon.program));
            m_Daemons.back()->Start();
            m_Who.emplace_back(daemon.strName, m_Daemons.back()->Pid());
        }
        SleepNs(kSettleNs);
    }

    void Measure(double dSeconds, CReport& report) const {
        Say(fmt::format("at rest for {} s", dSeconds));
        std::vector<CIdleMeter> meters;
        for (const auto& [strName, nPid] : m_Who) {
            meters.emplace_back(nPid);
        }
        SleepNs(static_cast<std::int64_t>(dSeconds * 1e9));
        std::vector<MeasuredRounds> memory;
        std::vector<MeasuredRounds> shared;
        std::vector<MeasuredRounds> percent;
        std::vector<MeasuredRounds> wakeUps;
        for (std::size_t i = 0; i < m_Who.size(); ++i) {
            const auto& [strName, nPid] = m_Who[i];
            const IdleCost cost = meters[i].Read();
            const Memory used = MemoryOf(nPid);
            memory.push_back({strName, {static_cast<double>(used.nResidentKib)}});
            shared.push_back({strName, {static_cast<double>(used.nSharedOutKib)}});
            percent.push_back({strName, {cost.dCpuPercent}});
            wakeUps.push_back({strName, {cost.dWakeUps}});
        }
        report.Add("Memory at rest, resident, KiB", memory, {Relation::kAtMost, 2560, ""});
        report.Add("the same, shared pages shared out, KiB", shared);
        report.Add("CPU at rest, % of a processor", percent, {Relation::kAtMost, 0.02, ""});
        report.Add("Wake-ups at rest, a second", wakeUps, {Relation::kAtMost, 2, ""});
    }

private:
    // wAgent: where its agent listens; 0: nowhere.
    void AddService(const std::string& strName, const std::string& strProgram,
                    std::uint16_t wAgent) {
        m_Services.push_back(std::make_unique<CService>(strProgram, wAgent));
        StartService(*m_Services.back());
        m_Who.emplace_back(strName, m_Services.back()->Pid());
    }

    CAgent m_Agent;
    std::vector<std::unique_ptr<CService>> m_Services;
    std::unique_ptr<CBareIntake> m_pBare;
    std::vector<std::unique_ptr<CLogDaemon>> m_Daemons;
    std::vector<std::pair<std::string, pid_t>> m_Who;
};

// Everybody in the foreground, from the start of the process until messages are taken.
void MeasureStarts(const BenchOptions& options, const std::vector<NamedDaemon>& daemons,
                   CReport& report) {
    std::vector<std::pair<std::string, std::string>> builds{{kService, options.strService}};
    if (!options.strStatic.empty()) {
        builds.emplace_back(kStatic, options.strStatic);
    }
    const auto times =
        InTurns("start", options.nRounds, builds.size() + daemons.size(), [&](std::size_t i) {
            if (i < builds.size()) {
                CService service(builds[i].second);
                return MsUntilOpen(UdpPortProbe(service.RecordPort()), [&] { service.Launch(); });
            }
            CLogDaemon daemon(daemons[i - builds.size()].program);
            return MsUntilOpen(daemon.Probe(), [&] { daemon.Launch(); });
        });
    std::vector<MeasuredRounds> rounds;
    for (std::size_t i = 0; i < times.size(); ++i) {
        rounds.push_back(
            {i < builds.size() ? builds[i].first : daemons[i - builds.size()].strName, times[i]});
    }
    report.Add("Start to open port, ms", rounds, {Relation::kAtMost, 5, ""});
}

// Each SIGTERM at another moment of the threads' waiting.
void MeasureStops(const BenchOptions& options, CReport& report) {
    std::mt19937 rng(41);
    std::uniform_int_distribution<std::int64_t> wait(0, kMostWaitNs);
    const int nStops = options.nRounds * kStopsPerRound;
    std::vector<double> stops;
    for (int i = 0; i < nStops; ++i) {
        if (i % kStopsPerRound == 0) {
            SayRound("start and stop", i / kStopsPerRound + 1, options.nRounds);
        }
        CService service(options.strService);
        StartService(service);
        SleepNs(wait(rng));
        stops.push_back(StopMs(service));
    }
    report.Add(fmt::format("SIGTERM to exit, longest of {}, ms", nStops),
               {{kService, {Maximum(stops)}}}, {Relation::kAtMost, 20, ""});
}

}  // namespace

void MeasureRest(const BenchOptions& options, CReport& report) {
    const auto daemons = FindDaemons(options.strDaemons, report);
    MeasureStarts(options, daemons, report);
    MeasureStops(options, report);
    CResting(options, daemons).Measure(std::max(kIdleSeconds, options.dSeconds), report);
}
