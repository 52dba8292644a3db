// The way of a real-time record to the console: how long it takes, how many a second get through,
// and what a line costs beside the bare formatting and sending of such lines.
#include <fmt/format.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareRelay.h"
#include "bench/BenchMain.h"
#include "bench/ConsoleClient.h"
#include "bench/Measure.h"
#include "bench/PacedSender.h"
#include "bench/RateSearch.h"
#include "logstore/LogRecord.h"
#include "peers/Service.h"

namespace {

constexpr double kWantedP99Ms = 2;
constexpr double kPacedRate = 1000;  // records per second
constexpr int kLogClient = 0;
constexpr std::int64_t kLineLimitNs = 1'000'000'000;
constexpr std::int64_t kStandstillNs = 200'000'000;
constexpr std::int64_t kRestNs = 2'000'000;  // between single records: everybody sleeps again
constexpr double kHighShare = 0.8;           // of the highest rate, where a line's cost is measured
constexpr double kShareOfRun = 0.25;         // length of a try in the search for the highest rate

class CRelayBench {
public:
    CRelayBench(const BenchOptions& options, const CService& service)
        : m_Options(options),
          m_Service(service),
          m_Control(service.RecordPort(), service.ControlPort(kLogClient)),
          m_Console(service.ConsolePort(), kLogClient),
          m_Sender(service.RecordPort(), kRealTimeType) {
        if (!m_Control.ReceiveControl(5000)) {
            throw std::runtime_error("the log client was not told to stream");
        }
    }

    Json Measure() {
        Json result;
        result["service"] = m_Options.strService;
        result["rounds"] = m_Options.nRounds;
        result["seconds"] = m_Options.dSeconds;
        result["latency_ms"]["one_at_a_time"] = Latency(&CRelayBench::OneAtATime);
        result["latency_ms"]["at_1000_per_s"] = Latency(&CRelayBench::Paced);
        MeasureLines(result);
        return result;
    }

private:
    struct Cost {
        double dIntakeUs = 0;  // processor time of the thread for each line
        double dConsoleUs = 0;
    };

    Json Latency(std::vector<double> (CRelayBench::*pfnRound)()) {
        std::vector<double> all;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            Say(fmt::format("latency: round {} of {}", nRound + 1, m_Options.nRounds));
            const auto values = (this->*pfnRound)();
            all.insert(all.end(), values.begin(), values.end());
        }
        const double dP99 = Percentile(all, 0.99);
        return {{"records", all.size()},
                {"p50", Rounded(Median(all))},
                {"p99", Rounded(dP99)},
                {"max", Rounded(Maximum(all))},
                {"wanted_p99_below", kWantedP99Ms},
                {"met", dP99 < kWantedP99Ms}};
    }

    std::vector<double> OneAtATime() {
        std::vector<double> latencies;
        const std::int64_t nEnd = NowNs() + static_cast<std::int64_t>(m_Options.dSeconds * 1e9);
        while (NowNs() < nEnd) {
            const std::int64_t nSent = NowNs();
            m_Sender.SendOne();
            const auto line = m_Console.NextLine(kLineLimitNs);
            latencies.push_back(static_cast<double>(NowNs() - nSent) * 1e-6);
            if (!line || NumberInText(std::string(*line)) != m_Sender.Sent()) {
                throw std::runtime_error("a record did not get to the console");
            }
            SleepNs(kRestNs);
        }
        return latencies;
    }

    std::vector<double> Paced() {
        const auto nGapNs = static_cast<std::int64_t>(1e9 / kPacedRate);
        const auto nRecords = static_cast<std::size_t>(kPacedRate * m_Options.dSeconds);
        std::vector<std::int64_t> sent;
        std::vector<double> latencies;
        std::int64_t nDue = NowNs();
        while (latencies.size() < nRecords) {
            const bool bSendsOn = sent.size() < nRecords;
            if (bSendsOn && NowNs() >= nDue) {
                sent.push_back(NowNs());
                m_Sender.SendOne();
                nDue += nGapNs;
                continue;
            }
            const auto line = m_Console.NextLine(
                bSendsOn ? std::max<std::int64_t>(nDue - NowNs(), 0) : kLineLimitNs);
            if (line) {
                latencies.push_back(static_cast<double>(NowNs() - sent[latencies.size()]) * 1e-6);
            } else if (!bSendsOn) {
                throw std::runtime_error("records did not get to the console");
            }
        }
        return latencies;
    }

    // Reads lines until nothing comes any more after bSent is set; their number.
    std::int64_t ReadLines(const std::atomic<bool>& bSent) {
        std::int64_t nLines = 0;
        for (;;) {
            // Looked at before the wait: a standstill counts from the end of the sending.
            const bool bLast = bSent;
            const auto line = m_Console.NextLine(kStandstillNs);
            if (!line && bLast) {
                return nLines;
            }
            if (line) {
                const std::int64_t nNumber = NumberInText(std::string(*line));
                if (nNumber <= m_nNewest) {
                    throw std::runtime_error("a line comes twice or not in its turn");
                }
                m_nNewest = nNumber;
                ++nLines;
            }
        }
    }

    struct RunResult {
        RateTry rate;
        std::int64_t nLines = 0;
    };

    RunResult RunLines(double dRate, double dSeconds) {
        std::atomic<bool> bSent{false};
        SendResult sent;
        std::thread sender([&] {
            sent = m_Sender.Send(dRate, dSeconds);
            bSent = true;
        });
        const std::int64_t nLines = ReadLines(bSent);
        sender.join();
        return {{sent.Rate(), nLines == sent.nSent}, nLines};
    }

    Cost CostOfLine(double dRate) {
        const pid_t nIntake = m_Service.Thread("logd.intake");
        const pid_t nConsole = m_Service.Thread("logd.console");
        const std::int64_t nIntakeNs = UseOfThread(m_Service.Pid(), nIntake).nCpuNs;
        const std::int64_t nConsoleNs = UseOfThread(m_Service.Pid(), nConsole).nCpuNs;
        const auto nLines = static_cast<double>(
            std::max<std::int64_t>(RunLines(dRate, m_Options.dSeconds).nLines, 1));
        const auto UsPerLine = [&](pid_t nTid, std::int64_t nBefore) {
            const std::int64_t nUsed = UseOfThread(m_Service.Pid(), nTid).nCpuNs - nBefore;
            return static_cast<double>(nUsed) * 1e-3 / nLines;
        };
        return {UsPerLine(nIntake, nIntakeNs), UsPerLine(nConsole, nConsoleNs)};
    }

    // Highest rate and cost of a line, taking turns with the bare relay.
    void MeasureLines(Json& result) {
        std::vector<HighestRate> highest;
        std::vector<double> bareRates;
        std::vector<double> bareUs;
        std::vector<Cost> paced;
        std::vector<Cost> high;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            Say(fmt::format("lines: round {} of {}", nRound + 1, m_Options.nRounds));
            highest.push_back(FindHighestRate([this](double dRate) {
                return RunLines(dRate, m_Options.dSeconds * kShareOfRun).rate;
            }));
            high.push_back(CostOfLine(highest.back().dRate * kHighShare));
            const BareRelayResult bare = RunBareRelay(m_Options.dSeconds);
            bareRates.push_back(bare.dLinesPerSecond);
            bareUs.push_back(bare.dCpuUsPerLine);
            paced.push_back(CostOfLine(kPacedRate));
        }
        result["lines_per_s"] = {{"highest_without_loss", Rounded(Median(RatesOf(highest)))},
                                 {"sender_was_the_limit", SenderWasLimit(highest)},
                                 {"bare", Rounded(Median(bareRates))}};
        result["cpu_us_per_line"] = {{"at_1000_per_s", Summary(paced)},
                                     {"at_80_percent_of_highest", Summary(high)},
                                     {"bare", Rounded(Median(bareUs))}};
    }

    static Json Summary(const std::vector<Cost>& costs) {
        std::vector<double> intake;
        std::vector<double> console;
        for (const Cost& cost : costs) {
            intake.push_back(cost.dIntakeUs);
            console.push_back(cost.dConsoleUs);
        }
        return {{"intake", Rounded(Median(intake))}, {"console", Rounded(Median(console))}};
    }

    BenchOptions m_Options;
    const CService& m_Service;
    CLogClient m_Control;  // the watched log client, as far as it is told what to do
    CConsoleClient m_Console;
    CPacedSender m_Sender;
    std::int64_t m_nNewest = 0;  // number of the newest line read in ReadLines
};

Json Run(const BenchOptions& options) {
    CService service(options.strService);
    if (!service.Start(true)) {
        throw std::runtime_error(fmt::format("{}: does not start", options.strService));
    }
    return CRelayBench(options, service).Measure();
}

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    options.strName = "tarvik-bench-relay";
    options.strDescription =
        "Measures how long a real-time record takes to the console and how many a second get "
        "there. Prints one JSON object.";
    options.nRounds = 3;
    return BenchMain(argc, argv, options, Run);
}
