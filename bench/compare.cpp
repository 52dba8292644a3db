// The service beside a bare loop of its system calls and beside the log daemons that people would
// use instead: the same load for all, in turns, in the same run.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Contender.h"
#include "bench/Growth.h"
#include "bench/Intakes.h"
#include "bench/LogDaemon.h"
#include "bench/Measure.h"
#include "bench/OpenWatch.h"
#include "bench/ReceiveBuffer.h"
#include "bench/Rest.h"
#include "peers/Service.h"

namespace {

// All rates are in records per second.
constexpr double kPacedRate = 10000;
constexpr double kFlood = 1e9;      // as fast as the sender can
constexpr double kShortTry = 0.1;   // of a measurement: a try in the search for the highest rate
constexpr double kLongTry = 0.5;    // the same when a large buffer helps longer
constexpr double kIdleSeconds = 5;  // at least

constexpr double kWantedPacedRatio = 1.15;
constexpr double kWantedFloodRatio = 1.2;
constexpr double kWantedRateRatio = 0.9;
constexpr double kWantedRaisedRate = 100000;
constexpr double kWantedStaticKib = 2560;
constexpr double kWantedStartMs = 5;
constexpr double kWantedIdlePercent = 0.3;  // of one processor

constexpr const char* kService = "service";
constexpr const char* kStatic = "service_static";
constexpr const char* kBare = "bare";

struct CompareOptions {
    std::string strStatic;     // path of the other build of the service; empty: none
    std::string strDaemons;    // directory that their packages were unpacked to; empty: none
    std::int64_t nBuffer = 0;  // receive buffer to measure with besides the machine's; 0: none
};

struct NamedDaemon {
    std::string strName;
    DaemonProgram program;
};

// The daemons that run here; why the others do not goes into absent.
std::vector<NamedDaemon> FindDaemons(const std::string& strPrefix, Json& absent) {
    std::vector<NamedDaemon> found;
    for (const std::string& strName : DaemonNames()) {
        const DaemonProgram program = FindDaemon(strName, strPrefix);
        if (program.Path().empty()) {
            absent[strName] = "not installed";
            continue;
        }
        try {
            CLogDaemon(program).Start();
            found.push_back({strName, program});
        } catch (const std::runtime_error& error) {
            absent[strName] = fmt::format("does not start: {}", error.what());
        }
    }
    return found;
}

std::unique_ptr<CService> StartedService(const std::string& strProgram) {
    auto pService = std::make_unique<CService>(strProgram);
    if (!pService->Start(true)) {
        throw std::runtime_error(fmt::format("{}: does not start", strProgram));
    }
    return pService;
}

// All who are compared, running, each under its name.
class CField {
public:
    CField(const std::string& strService, const std::vector<NamedDaemon>& daemons)
        : m_pService(StartedService(strService)), m_Bare(m_pService->Path("/bare.log")) {
        Add(kService, std::make_unique<CRecordContender>(IntakeOf(*m_pService)));
        Add(kBare, std::make_unique<CRecordContender>(m_Bare.Get()));
        for (const NamedDaemon& daemon : daemons) {
            m_Daemons.push_back(std::make_unique<CLogDaemon>(daemon.program));
            m_Daemons.back()->Start();
            Add(daemon.strName, std::make_unique<CLineContender>(*m_Daemons.back()));
        }
        SleepNs(kSettleNs);
    }

    std::size_t Size() const { return m_Contenders.size(); }
    CContender& At(std::size_t i) { return *m_Contenders[i].second; }
    const std::string& Name(std::size_t i) const { return m_Contenders[i].first; }

    // The place of who is always there.
    static constexpr std::size_t kServiceAt = 0;
    static constexpr std::size_t kBareAt = 1;

private:
    void Add(const std::string& strName, std::unique_ptr<CContender> pContender) {
        m_Contenders.emplace_back(strName, std::move(pContender));
    }

    std::unique_ptr<CService> m_pService;
    CBareIntake m_Bare;
    std::vector<std::unique_ptr<CLogDaemon>> m_Daemons;
    std::vector<std::pair<std::string, std::unique_ptr<CContender>>> m_Contenders;
};

Json CpuOf(const std::vector<Load>& loads) {
    const auto nSent = Total(Values(loads, &Load::nSent));
    const auto nStored = Total(Values(loads, &Load::nStored));
    return {{"cpu_us", Rounded(Median(Values(loads, &Load::dCpuUs)))},
            {"rate_sent", std::round(Median(Values(loads, &Load::dRate)))},
            {"sent", nSent},
            {"stored", nStored},
            {"lost_percent",
             Rounded(100 * static_cast<double>(nSent - nStored) / static_cast<double>(nSent))}};
}

class CCompareBench {
public:
    CCompareBench(const BenchOptions& options, CompareOptions more)
        : m_Options(options), m_More(std::move(more)) {}

    Json Measure() {
        m_Result["service"] = m_Options.strService;
        m_Result["rounds"] = m_Options.nRounds;
        m_Result["seconds"] = m_Options.dSeconds;
        m_Result["absent"] = Json::object();
        m_Daemons = FindDaemons(m_More.strDaemons.empty()
                                    ? std::string()
                                    : std::filesystem::absolute(m_More.strDaemons).string(),
                                m_Result["absent"]);
        m_Result["wanted"] = Json::array();
        MeasureStarts();
        MeasureRest();
        PinThread(0, Processor::First);
        MeasureLoads();
        MeasureRaisedBuffer();
        Say("growth");
        m_Result["growth"] = MeasureGrowth(m_Options);
        return m_Result;
    }

private:
    // Holds a figure against what is wanted of it.
    void WantAtMost(const std::string& strFigure, double dValue, double dLimit) {
        Want(strFigure, dValue, "at most", dLimit, dValue <= dLimit);
    }
    void WantAtLeast(const std::string& strFigure, double dValue, double dLimit) {
        Want(strFigure, dValue, "at least", dLimit, dValue >= dLimit);
    }
    void WantBelow(const std::string& strFigure, double dValue, double dLimit) {
        Want(strFigure, dValue, "below", dLimit, dValue < dLimit);
    }
    void Want(const std::string& strFigure, double dValue, const char* szRelation, double dLimit,
              bool bMet) {
        m_Result["wanted"].push_back({{"figure", strFigure},
                                      {"value", dValue},
                                      {"relation", szRelation},
                                      {"limit", dLimit},
                                      {"met", bMet}});
    }

    // The builds of the service, by name.
    std::vector<std::pair<std::string, std::string>> Builds() const {
        std::vector<std::pair<std::string, std::string>> builds{{kService, m_Options.strService}};
        if (!m_More.strStatic.empty()) {
            builds.emplace_back(kStatic, m_More.strStatic);
        }
        return builds;
    }

    // Everybody in the foreground, from the start of the process until messages are taken.
    void MeasureStarts() {
        const auto builds = Builds();
        const auto times = InTurns("start", m_Options.nRounds, builds.size() + m_Daemons.size(),
                                   [&](std::size_t i) {
                                       if (i < builds.size()) {
                                           CService service(builds[i].second);
                                           return MsUntilOpen(UdpPortProbe(service.RecordPort()),
                                                              [&] { service.Launch(); });
                                       }
                                       CLogDaemon daemon(m_Daemons[i - builds.size()].program);
                                       return MsUntilOpen(daemon.Probe(), [&] { daemon.Launch(); });
                                   });
        Json& starts = m_Result["start_to_open_ms"];
        for (std::size_t i = 0; i < times.size(); ++i) {
            const auto& strName =
                i < builds.size() ? builds[i].first : m_Daemons[i - builds.size()].strName;
            starts[strName] = Rounded(Median(times[i]));
        }
        for (const auto& [strName, strProgram] : builds) {
            WantAtMost("start_to_open_ms." + strName, starts[strName], kWantedStartMs);
        }
    }

    // Memory and idle cost of all, fresh from their start, at the same time.
    void MeasureRest() {
        const double dSeconds = std::max(kIdleSeconds, m_Options.dSeconds);
        Say(fmt::format("idle for {} s", dSeconds));
        std::vector<std::unique_ptr<CService>> services;
        std::vector<std::unique_ptr<CLogDaemon>> daemons;
        std::vector<std::pair<std::string, pid_t>> resting;
        for (const auto& [strName, strProgram] : Builds()) {
            services.push_back(StartedService(strProgram));
            resting.emplace_back(strName, services.back()->Pid());
        }
        const CBareIntake bare(services.front()->Path("/bare.log"));
        resting.emplace_back(kBare, bare.Get().nPid);
        for (const NamedDaemon& daemon : m_Daemons) {
            daemons.push_back(std::make_unique<CLogDaemon>(daemon.program));
            daemons.back()->Start();
            resting.emplace_back(daemon.strName, daemons.back()->Pid());
        }
        SleepNs(kSettleNs);
        ReadRest(resting, dSeconds);
    }

    void ReadRest(const std::vector<std::pair<std::string, pid_t>>& resting, double dSeconds) {
        std::vector<CIdleMeter> meters;
        meters.reserve(resting.size());
        for (const auto& [strName, nPid] : resting) {
            meters.emplace_back(nPid);
        }
        SleepNs(static_cast<std::int64_t>(dSeconds * 1e9));
        for (std::size_t i = 0; i < resting.size(); ++i) {
            const auto& [strName, nPid] = resting[i];
            m_Result["idle"][strName] = meters[i].Read();
            m_Result["memory_kib"][strName] = MemoryOf(nPid);
        }
        for (const auto& [strName, strProgram] : Builds()) {
            WantBelow("idle_cpu_percent." + strName, m_Result["idle"][strName]["cpu_percent"],
                      kWantedIdlePercent);
        }
        if (!m_More.strStatic.empty()) {
            WantAtMost("memory_kib.service_static", m_Result["memory_kib"][kStatic]["rss"],
                       kWantedStaticKib);
        }
    }

    // With the receive buffer that the machine has.
    void MeasureLoads() {
        CField field(m_Options.strService, m_Daemons);
        const Json paced = MeasureCpu(field, "10,000/s", kPacedRate);
        for (std::size_t i = 0; i < field.Size(); ++i) {
            if (!field.At(i).HasNewestRecord()) {
                throw std::runtime_error(field.Name(i) + " has not stored the newest record");
            }
        }
        const Json flood = MeasureCpu(field, "full flood", kFlood);
        Json& cpu = m_Result["cpu_us_per_record"];
        cpu = {{"paced", paced}, {"flood", flood}};
        for (const char* szWhose : {"intake", "whole"}) {
            WantAtMost(fmt::format("cpu_us_per_record.paced.{}.ratio", szWhose),
                       paced[szWhose]["ratio"], kWantedPacedRatio);
            WantAtMost(fmt::format("cpu_us_per_record.flood.{}.ratio", szWhose),
                       flood[szWhose]["ratio"], kWantedFloodRatio);
        }
        for (const char* szOther : {"rsyslogd", "syslog-ng"}) {
            if (paced["of"].contains(szOther)) {
                WantBelow(fmt::format("cpu_us_per_record.paced.below.{}", szOther),
                          paced["of"][kService]["cpu_us"], paced["of"][szOther]["cpu_us"]);
            }
        }
        Json& rates = m_Result["highest_rate_without_loss"]["default_buffer"];
        rates = MeasureHighestRates(field, kShortTry);
        WantAtLeast("highest_rate_without_loss.default_buffer.ratio", rates["ratio"],
                    kWantedRateRatio);
    }

    // "of": everybody's figures; "whole" and "intake": the service's process and its intake thread
    // alone against the bare loop.
    Json MeasureCpu(CField& field, const std::string& strRate, double dRate) const {
        const auto loads =
            InTurns("processor time at " + strRate, m_Options.nRounds, field.Size(),
                    [&](std::size_t i) { return field.At(i).Run(dRate, m_Options.dSeconds); });
        Json result;
        for (std::size_t i = 0; i < loads.size(); ++i) {
            result["of"][field.Name(i)] = CpuOf(loads[i]);
        }
        const auto Against = [&](double Load::*pValue) {
            return CompareRounds({kService, Values(loads[CField::kServiceAt], pValue)},
                                 {kBare, Values(loads[CField::kBareAt], pValue)});
        };
        result["whole"] = Against(&Load::dCpuUs);
        result["intake"] = Against(&Load::dIntakeUs);
        return result;
    }

    Json MeasureHighestRates(CField& field, double dShareOfRun) const {
        const auto found = InTurns(
            fmt::format("highest rate without loss, buffer {}", ReceiveBuffer()), m_Options.nRounds,
            field.Size(),
            [&](std::size_t i) { return Search(field.At(i), m_Options.dSeconds * dShareOfRun); });
        Json result{{"buffer", ReceiveBuffer()}};
        Turns<double> rates(found.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            rates[i] = RatesOf(found[i]);
            result["of"][field.Name(i)] = {{"rate", std::round(Median(rates[i]))},
                                           {"sender_was_the_limit", SenderWasLimit(found[i])}};
        }
        result.update(
            CompareRounds({kService, rates[CField::kServiceAt]}, {kBare, rates[CField::kBareAt]}));
        return result;
    }

    static HighestRate Search(CContender& who, double dSeconds) {
        try {
            return who.SearchHighestRate(dSeconds);
        } catch (const CNoRate&) {
            return {};
        }
    }

    // Everybody is started anew: a socket gets its buffer when it is made.
    void MeasureRaisedBuffer() {
        Json& rates = m_Result["highest_rate_without_loss"]["raised_buffer"];
        if (m_More.nBuffer == 0) {
            rates = {{"not_measured", "needs --buffer and root"}};
            return;
        }
        const std::int64_t nBefore = ReceiveBuffer();
        if (!SetReceiveBuffer(m_More.nBuffer)) {
            rates = {{"not_measured", "the buffer could not be set, that needs root"}};
            return;
        }
        {
            CField field(m_Options.strService, m_Daemons);
            rates = MeasureHighestRates(field, kLongTry);
        }
        if (!SetReceiveBuffer(nBefore)) {
            throw std::runtime_error("the receive buffer cannot be set back");
        }
        WantAtLeast("highest_rate_without_loss.raised_buffer", rates["of"][kService]["rate"],
                    kWantedRaisedRate);
    }

    const BenchOptions m_Options;
    const CompareOptions m_More;
    std::vector<NamedDaemon> m_Daemons;
    Json m_Result;
};

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    CompareOptions more;
    options.strName = "tarvik-bench-compare";
    options.strDescription =
        "Measures the service beside a bare loop of its system calls and beside rsyslogd, "
        "syslog-ng and busybox syslogd, as far as they are there. Prints one JSON object.";
    options.addOptions = [&more](CLI::App& app) {
        app.add_option("--static", more.strStatic, "path of the static build of tarvik-logd")
            ->check(CLI::ExistingFile);
        app.add_option("--daemons", more.strDaemons,
                       "directory that packages of log daemons were unpacked to")
            ->check(CLI::ExistingDirectory);
        app.add_option("--buffer", more.nBuffer,
                       "also measure with this net.core.rmem_default, in bytes; root only, and it "
                       "is restored at the end")
            ->check(CLI::Range(std::int64_t{4096}, std::int64_t{1} << 30));
    };
    return BenchMain(argc, argv, options, [&more](const BenchOptions& given) {
        return CCompareBench(given, more).Measure();
    });
}
