// The intake against a bare loop of the system calls that a stored record needs: processor time of
// a record and the highest rate without loss, of both in the same run, taking turns.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <utility>
#include <vector>

#include "bench/BenchMain.h"
#include "bench/Intakes.h"
#include "bench/Measure.h"
#include "bench/PacedSender.h"
#include "bench/RateSearch.h"
#include "tools/DayFile.h"

namespace {

// All rates are in records per second.
constexpr double kPacedRate = 10000;
constexpr double kHighShare = 0.8;  // the high rate is this share of the lower of the highest rates

constexpr double kShareOfRun = 0.25;  // length of a try in the search for the highest rate

constexpr double kWantedCpuRatio = 1.25;
constexpr double kWantedRateRatio = 0.85;

struct Load {
    double dRate = 0;  // reached by the sender
    std::int64_t nSent = 0;
    std::int64_t nStored = 0;
    double dCpuUs = 0;  // of the intake, for each stored record
};

// One of the two that are compared, with its sender.
class CContender {
public:
    explicit CContender(Intake intake)
        : m_Intake(std::move(intake)), m_Sender(m_Intake.wPort, 0), m_nStored(m_Intake.Stored()) {
        PinThread(m_Intake.nTid, Processor::Last);
    }

    Load Run(double dRate, double dSeconds) {
        const std::int64_t nCpuBefore = CpuNs();
        const std::int64_t nStoredBefore = m_nStored;
        const SendResult sent = m_Sender.Send(dRate, dSeconds);
        m_nStored = m_Intake.WaitStored(nStoredBefore + sent.nSent);
        Load load{sent.Rate(), sent.nSent, m_nStored - nStoredBefore, 0};
        load.dCpuUs = static_cast<double>(CpuNs() - nCpuBefore) * 1e-3 /
                      static_cast<double>(std::max<std::int64_t>(load.nStored, 1));
        return load;
    }

    // Whether the newest record in the file is the one that was sent last.
    bool HasNewestRecord() const {
        const DayFile day = ReadDayFile(m_Intake.strFile);
        return !day.records.empty() && RecordText(day.records.back()) == m_Sender.LastText();
    }

private:
    std::int64_t CpuNs() const { return UseOfThread(m_Intake.nPid, m_Intake.nTid).nCpuNs; }

    Intake m_Intake;
    CPacedSender m_Sender;
    std::int64_t m_nStored;
};

enum Name { kService, kBare };

// Values of both, round by round.
using Rounds = std::array<std::vector<double>, 2>;

struct Account {
    std::int64_t nSent = 0;
    std::int64_t nStored = 0;
    std::vector<double> rates;  // reached, round by round
};

class CIntakeBench {
public:
    CIntakeBench(const BenchOptions& options, const Intake& service, const Intake& bare)
        : m_Options(options), m_Contenders{CContender(service), CContender(bare)} {
        PinThread(0, Processor::First);
    }

    Json Measure() {
        const Rounds highest = MeasureHighestRates();
        const double dHigh =
            kHighShare * std::min(Median(highest[kService]), Median(highest[kBare]));
        Json result;
        result["service"] = m_Options.strService;
        result["rounds"] = m_Options.nRounds;
        result["seconds"] = m_Options.dSeconds;
        result["cpu_us_per_record"]["paced"] = MeasureCpu(kPacedRate);
        result["cpu_us_per_record"]["high"] = MeasureCpu(dHigh);
        Json& rates = result["highest_rate_without_loss"];
        rates = Compare(highest);
        rates["sender_was_the_limit"] = m_bSenderLimits;
        rates["wanted_ratio"] = kWantedRateRatio;
        rates["met"] = rates["ratio"] >= kWantedRateRatio;
        return result;
    }

private:
    // The two take turns; who begins changes with the round, so a drift of the machine hits both.
    template <class TMeasure>
    Rounds InTurns(const std::string& strWhat, TMeasure measure) {
        Rounds rounds;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            Say(fmt::format("{}: round {} of {}", strWhat, nRound + 1, m_Options.nRounds));
            for (int nTurn = 0; nTurn < 2; ++nTurn) {
                const auto nWho = static_cast<std::size_t>((nRound + nTurn) % 2);
                rounds[nWho].push_back(measure(m_Contenders[nWho], nWho));
            }
        }
        return rounds;
    }

    static Json Compare(const Rounds& rounds) {
        return CompareRounds({"service", rounds[kService]}, {"bare", rounds[kBare]});
    }

    Json MeasureCpu(double dRate) {
        std::array<Account, 2> accounts;
        const Rounds rounds = InTurns(fmt::format("processor time at {:.0f}/s", dRate),
                                      [&](CContender& who, auto nWho) {
                                          const Load load = who.Run(dRate, m_Options.dSeconds);
                                          accounts[nWho].nSent += load.nSent;
                                          accounts[nWho].nStored += load.nStored;
                                          accounts[nWho].rates.push_back(load.dRate);
                                          return load.dCpuUs;
                                      });
        Json result{{"rate", std::round(dRate)}};
        result.update(Compare(rounds));
        result["wanted_ratio"] = kWantedCpuRatio;
        result["met"] = result["ratio"] <= kWantedCpuRatio;
        const char* const szNames[] = {"service", "bare"};
        for (const auto nWho : {kService, kBare}) {
            const Account& account = accounts[nWho];
            result["records"][szNames[nWho]] = {
                {"rate_reached", std::round(Median(account.rates))},
                {"sent", account.nSent},
                {"stored", account.nStored},
                {"newest_is_the_last_sent", m_Contenders[nWho].HasNewestRecord()}};
        }
        return result;
    }

    Rounds MeasureHighestRates() {
        return InTurns("highest rate without loss",
                       [this](CContender& who, auto) { return SearchHighestRate(who); });
    }

    double SearchHighestRate(CContender& who) {
        const HighestRate found = FindHighestRate([&](double dRate) {
            const Load load = who.Run(dRate, m_Options.dSeconds * kShareOfRun);
            return RateTry{load.dRate, load.nStored == load.nSent};
        });
        m_bSenderLimits = m_bSenderLimits || found.bSenderWasLimit;
        return found.dRate;
    }

    BenchOptions m_Options;
    std::array<CContender, 2> m_Contenders;
    bool m_bSenderLimits = false;
};

Json Run(const BenchOptions& options) {
    CService service(options.strService);
    const CBareIntake bare(service.Path("/bare.log"));
    if (!service.Start(true)) {
        throw std::runtime_error(fmt::format("{}: does not start", options.strService));
    }
    return CIntakeBench(options, IntakeOf(service), bare.Get()).Measure();
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
