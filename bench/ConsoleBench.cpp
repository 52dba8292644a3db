// The way of a real-time record to the console: how long it takes, how many a second get through,
// and what a line costs beside the bare formatting and sending of such lines.
#include <fmt/format.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareRelay.h"
#include "bench/Benches.h"
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
constexpr double kHighShare = 0.8;    // of the highest rate, where a line's cost is measured
constexpr double kShareOfRun = 0.25;  // length of a try in the search for the highest rate

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

    void Measure(CReport& report) {
        MeasureLatency(report);
        MeasureLines(report);
    }

private:
    void MeasureLatency(CReport& report) {
        std::vector<double> all;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            SayRound("latency", nRound + 1, m_Options.nRounds);
            const auto values = Paced();
            all.insert(all.end(), values.begin(), values.end());
        }
        report.Add("Console: record to line at 1,000/s, 99th percentile, ms",
                   {{kService, {Percentile(all, 0.99)}}}, {Relation::kBelow, kWantedP99Ms, ""});
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

    double ConsoleUsPerLine(double dRate) {
        const pid_t nConsole = m_Service.Thread("logd.console");
        const std::int64_t nBefore = UseOfThread(m_Service.Pid(), nConsole).nCpuNs;
        const auto nLines = std::max<std::int64_t>(RunLines(dRate, m_Options.dSeconds).nLines, 1);
        const std::int64_t nUsed = UseOfThread(m_Service.Pid(), nConsole).nCpuNs - nBefore;
        return static_cast<double>(nUsed) * 1e-3 / static_cast<double>(nLines);
    }

    // Highest rate and cost of a line, taking turns with the bare relay.
    void MeasureLines(CReport& report) {
        std::vector<HighestRate> highest;
        MeasuredRounds bareRates{kBare, {}};
        MeasuredRounds bareUs{kBare, {}};
        MeasuredRounds highUs{kService, {}};
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            SayRound("lines", nRound + 1, m_Options.nRounds);
            highest.push_back(FindHighestRate([this](double dRate) {
                return RunLines(dRate, m_Options.dSeconds * kShareOfRun).rate;
            }));
            highUs.values.push_back(ConsoleUsPerLine(highest.back().dRate * kHighShare));
            const BareRelayResult bare = RunBareRelay(m_Options.dSeconds);
            bareRates.values.push_back(bare.dLinesPerSecond);
            bareUs.values.push_back(bare.dCpuUsPerLine);
        }
        report.Add("Console: highest rate without loss, lines/s",
                   {{kService, RatesOf(highest), SenderWasLimit(highest)}, bareRates});
        report.Add("Console: CPU of a line at 80 % of that, console thread, µs", {highUs, bareUs});
    }

    BenchOptions m_Options;
    const CService& m_Service;
    CLogClient m_Control;  // the watched log client, as far as it is told what to do
    CConsoleClient m_Console;
    CPacedSender m_Sender;
    std::int64_t m_nNewest = 0;  // number of the newest line read in ReadLines
};

}  // namespace

void MeasureConsole(const BenchOptions& options, CReport& report) {
    CService service(options.strService);
    StartService(service);
    CRelayBench(options, service).Measure(report);
}
