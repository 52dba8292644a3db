// How the cost of a stored record grows with what stands around it.
#include "bench/Benches.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Contender.h"
#include "bench/Measure.h"
#include "bench/UploadSessions.h"
#include "core/ThreadMsg.h"

namespace {

constexpr double kRate = 10000;      // records per second
constexpr double kFillRate = 20000;  // before the measurement; nothing is lost at it
// A service does things with the first records that it does once.
constexpr double kWarmSlots = 1000;
constexpr std::int64_t kReadyNs = 50'000'000;  // for sessions to read what they were asked for

constexpr std::array<int, 3> kClients{1, 10, 100};

// What a day's file holds when records start to come, in slots.
struct Fill {
    const char* szName;
    double dSlots;
};
constexpr double kFillSeconds = 0.25;  // of the load that follows; it must end before the wrap
constexpr double kSlots = kLogFileUnits - 1;
constexpr std::array<Fill, 4> kFills{{{"nearly empty", kWarmSlots},
                                      {"half full", kSlots / 2},
                                      {"nearly full", kSlots - kFillSeconds* kRate - 1},
                                      {"wrapped", kSlots * 1.2}}};

// The service's own configuration with nClients log clients.
std::string ConfigurationWith(const CService& service, int nClients) {
    const std::string strDefault = service.DefaultConfiguration();
    std::string strConfig = fmt::format(
        "{}PidCount = {}\n", strDefault.substr(0, strDefault.find("PidCount")), nClients);
    for (int i = 0; i < nClients; ++i) {
        strConfig +=
            fmt::format("[{0}]\nListenPort = {1}\nAPP = client{0}\n", i, service.ControlPort(0));
    }
    return strConfig;
}

Load RunWithClients(const BenchOptions& options, int nClients) {
    CService service(options.strService);
    service.WriteFile("/etc/tarvik/log/log.conf", ConfigurationWith(service, nClients));
    StartService(service);
    CRecordContender contender(IntakeOf(service), nClients);
    contender.Run(kFillRate, kWarmSlots / kFillRate);
    return contender.Run(kRate, options.dSeconds);
}

Load RunWithFill(const BenchOptions& options, const Fill& fill) {
    CService service(options.strService);
    StartService(service);
    CRecordContender contender(IntakeOf(service));
    contender.Run(kFillRate, fill.dSlots / kFillRate);
    return contender.Run(kRate, kFillSeconds);
}

// A service with an agent, which can start sessions.
class CSessionGrowth {
public:
    explicit CSessionGrowth(const BenchOptions& options)
        : m_Options(options), m_Service(options.strService, m_Agent.Port()) {
        StartService(m_Service);
        m_Agent.Register();
        m_pContender = std::make_unique<CRecordContender>(IntakeOf(m_Service));
        m_pContender->Run(kFillRate, kWarmSlots / kFillRate);
    }

    Load Run(int nSessions) {
        CReceiver receiver;
        Sessions sessions = StartSessions(m_Service, m_Agent, receiver, nSessions);
        SubscribeToAll(sessions);
        SleepNs(kReadyNs);
        const CReaders readers(sessions);
        const Load load = m_pContender->Run(kRate, m_Options.dSeconds);
        WaitCount([&] { return static_cast<std::int64_t>(readers.Bytes()); }, INT64_MAX);
        const auto nWanted = ForwardedBytes(sizeof(kSampleText) - 1) *
                             static_cast<std::size_t>(load.nSent * nSessions);
        m_nWanted += nWanted;
        m_nForwarded += readers.Bytes();
        return load;
    }

    double ForwardedShare() const {
        return static_cast<double>(m_nForwarded) / static_cast<double>(m_nWanted);
    }

private:
    const BenchOptions& m_Options;
    CAgent m_Agent;
    CService m_Service;
    std::unique_ptr<CRecordContender> m_pContender;
    std::uint64_t m_nWanted = 0;  // bytes that all sessions should have got
    std::uint64_t m_nForwarded = 0;
};

template <class TWhat>
Json Row(const TWhat& what, const std::vector<Load>& loads) {
    const auto nSent = Total(Values(loads, &Load::nSent));
    return {{"with", fmt::format("{}", what)},
            {"cpu_us", Median(Values(loads, &Load::dCpuUs))},
            {"intake_cpu_us", Median(Values(loads, &Load::dIntakeUs))},
            {"lost", nSent - Total(Values(loads, &Load::nStored))}};
}

// A table with a row for each of the cases; name(i) tells what case i is, run(i) loads it.
template <class TName, class TRun>
void Measure(const BenchOptions& options, CReport& report, const std::string& strTitle,
             std::size_t nCases, const TName& name, const TRun& run) {
    const auto loads = InTurns(strTitle, options.nRounds, nCases, run);
    Json rows = Json::array();
    for (std::size_t i = 0; i < loads.size(); ++i) {
        rows.push_back(Row(name(i), loads[i]));
    }
    report.AddGrowth(strTitle, rows);
}

}  // namespace

void MeasureGrowth(const BenchOptions& options, CReport& report) {
    PinThread(0, Processor::kFirst);
    Measure(
        options, report, "Log clients that send", kClients.size(),
        [](std::size_t i) { return kClients[i]; },
        [&](std::size_t i) { return RunWithClients(options, kClients[i]); });
    CSessionGrowth growth(options);
    Measure(
        options, report, "Sessions that want every record", kUploadSlots + 1,
        [](std::size_t i) { return i; },
        [&](std::size_t i) { return growth.Run(static_cast<int>(i)); });
    report.Add("Live records that got to their receivers, %",
               {{kService, {100 * growth.ForwardedShare()}}});
    Measure(
        options, report, "Day's file", kFills.size(),
        [](std::size_t i) { return kFills[i].szName; },
        [&](std::size_t i) { return RunWithFill(options, kFills[i]); });
}
