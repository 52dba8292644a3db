// The intake against a bare loop of the system calls that a stored record needs, and against the
// same loop in a process that has a second thread: processor time of a record and the highest rate
// without loss, of all in the same run, taking turns.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Contender.h"
#include "bench/Intakes.h"
#include "bench/Measure.h"

namespace {

// All rates are in records per second.
constexpr double kPacedRate = 10000;
constexpr double kHighShare = 0.8;  // the high rate is this share of the lower of the highest rates

constexpr double kShareOfRun = 0.1;  // length of a try in the search for the highest rate

constexpr double kWantedPacedRatio = 1.15;
constexpr double kWantedHighRatio = 1.2;
constexpr double kWantedRateRatio = 0.9;

enum Name { kService, kBare, kBareInThreads };
constexpr const char* kNames[] = {"service", "bare", "bare_in_threads"};

class CIntakeBench {
public:
    CIntakeBench(const BenchOptions& options, const Intake& service, const Intake& bare,
                 const Intake& bareInThreads)
        : m_Options(options),
          m_Contenders{CRecordContender(service), CRecordContender(bare),
                       CRecordContender(bareInThreads)} {
        PinThread(0, Processor::First);
    }

    Json Measure() {
        const Turns<HighestRate> found = MeasureHighestRates();
        Turns<double> highest;
        for (const auto& ofOne : found) {
            highest.push_back(RatesOf(ofOne));
        }
        const double dHigh =
            kHighShare * std::min(Median(highest[kService]), Median(highest[kBare]));
        Json result;
        result["service"] = m_Options.strService;
        result["rounds"] = m_Options.nRounds;
        result["seconds"] = m_Options.dSeconds;
        result["cpu_us_per_record"]["paced"] = MeasureCpu(kPacedRate, kWantedPacedRatio);
        result["cpu_us_per_record"]["high"] = MeasureCpu(dHigh, kWantedHighRatio);
        Json& rates = result["highest_rate_without_loss"];
        rates = Compare(highest);
        for (const auto nWho : {kService, kBare, kBareInThreads}) {
            rates["sender_was_the_limit"][kNames[nWho]] = SenderWasLimit(found[nWho]);
        }
        rates["wanted_ratio"] = kWantedRateRatio;
        rates["met"] = rates["ratio"] >= kWantedRateRatio;
        return result;
    }

private:
    // The service beside the bare loop, and below "beside_threads" beside the one with two threads.
    static Json Compare(const Turns<double>& values) {
        const auto beside = [&values](Name bare) {
            return CompareRounds({kNames[kService], values[kService]},
                                 {kNames[bare], values[bare]});
        };
        Json result = beside(kBare);
        result["beside_threads"] = beside(kBareInThreads);
        return result;
    }

    Json MeasureCpu(double dRate, double dWantedRatio) {
        const auto loads = InTurns(fmt::format("processor time at {:.0f}/s", dRate),
                                   m_Options.nRounds, m_Contenders.size(), [&](std::size_t nWho) {
                                       return m_Contenders[nWho].Run(dRate, m_Options.dSeconds);
                                   });
        Json result{{"rate", std::round(dRate)}};
        Turns<double> costs;
        for (const auto& ofOne : loads) {
            costs.push_back(Values(ofOne, &Load::dIntakeUs));
        }
        result.update(Compare(costs));
        result["wanted_ratio"] = dWantedRatio;
        result["met"] = result["ratio"] <= dWantedRatio;
        for (const auto nWho : {kService, kBare, kBareInThreads}) {
            result["records"][kNames[nWho]] = {
                {"rate_reached", std::round(Median(Values(loads[nWho], &Load::dRate)))},
                {"sent", Total(Values(loads[nWho], &Load::nSent))},
                {"stored", Total(Values(loads[nWho], &Load::nStored))}};
            if (dRate == kPacedRate && !m_Contenders[nWho].HasNewestRecord()) {
                throw std::runtime_error(
                    fmt::format("{}: the newest record is not stored", kNames[nWho]));
            }
        }
        return result;
    }

    Turns<HighestRate> MeasureHighestRates() {
        return InTurns(
            "highest rate without loss", m_Options.nRounds, m_Contenders.size(),
            [this](std::size_t nWho) {
                return m_Contenders[nWho].SearchHighestRate(m_Options.dSeconds * kShareOfRun);
            });
    }

    BenchOptions m_Options;
    std::array<CRecordContender, 3> m_Contenders;
};

Json Run(const BenchOptions& options) {
    CService service(options.strService);
    const CBareIntake bare(service.Path("/bare.log"));
    const CBareIntake bareInThreads(service.Path("/threads.log"),
                                    CBareIntake::Threads::OneSleepsToo);
    if (!service.Start(true)) {
        throw std::runtime_error(fmt::format("{}: does not start", options.strService));
    }
    return CIntakeBench(options, IntakeOf(service), bare.Get(), bareInThreads.Get()).Measure();
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    options.strName = "tarvik-bench-intake";
    options.strDescription =
        "Measures what a stored record costs the service, and how many it takes, against a bare "
        "loop of the same system calls. Prints one JSON object.";
    return BenchMain(argc, argv, options, Run);
}
