// The service beside bare loops of its system calls and beside the log daemons that people would
// use instead: the same load for all, in turns, in the same run.
#include <fmt/format.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Field.h"
#include "bench/Measure.h"
#include "bench/ReceiveBuffer.h"

namespace {

constexpr double kFlood = 1e9;     // records per second: as fast as the sender can
constexpr double kShortTry = 0.1;  // of a measurement: a try in the search for the highest rate
constexpr double kLongTry = 0.5;   // the same when a large buffer helps longer

struct LoadCase {
    const char* szName;
    double dRate;
    int nSenders;
    double dWantedRatio;  // of the cost of a record to the bare loop's, at most
};

constexpr std::array<LoadCase, 4> kLoads{{{"10,000/s", 10000, 1, 1.05},
                                          {"100,000/s", 100000, 1, 0.8},
                                          {"full flood", kFlood, 1, 0.9},
                                          {"full flood by two senders", kFlood, 2, 0.8}}};

class CCompareBench {
public:
    CCompareBench(const BenchOptions& options, CReport& report)
        : m_Options(options), m_Report(report), m_Daemons(FindDaemons(options.strDaemons, report)) {
        PinThread(0, Processor::kFirst);
    }

    // With the receive buffer that the machine has.
    void MeasureLoads() {
        CField field(m_Options.strService, m_Daemons);
        for (const LoadCase& load : kLoads) {
            MeasureLoad(field, load);
        }
        MeasureHighestRates(field, kShortTry, {Relation::kAtLeast, 1.5, kBare});
    }

    // Everybody is started anew: a socket gets its buffer when it is made.
    void MeasureRaisedBuffer() {
        if (m_Options.nBuffer == 0) {
            return;
        }
        const std::int64_t nBefore = ReceiveBuffer();
        if (!SetReceiveBuffer(m_Options.nBuffer)) {
            throw std::runtime_error("the receive buffer cannot be set; that needs root");
        }
        {
            CField field(m_Options.strService, m_Daemons);
            MeasureHighestRates(field, kLongTry, {Relation::kAtLeast, 100000, ""});
        }
        if (!SetReceiveBuffer(nBefore)) {
            throw std::runtime_error("the receive buffer cannot be set back");
        }
    }

private:
    void MeasureLoad(CField& field, const LoadCase& load) {
        const auto loads =
            InTurns(fmt::format("processor time at {}", load.szName), m_Options.nRounds,
                    field.Size(), [&](std::size_t i) {
                        return field.At(i).Run(load.dRate, m_Options.dSeconds, load.nSenders);
                    });
        m_Report.Add(fmt::format("CPU of a stored record at {}, µs", load.szName),
                     field.Rounds(loads, &Load::dCpuUs),
                     {Relation::kAtMost, load.dWantedRatio, kBare});
        if (load.dRate < kFlood) {
            CheckNewest(field);
            return;
        }
        m_Report.Add("sent then, records/s", field.Rounds(loads, &Load::dRate));
        m_Report.Add("lost of these, %", field.Rounds(loads, &Load::dLostPercent),
                     {Relation::kBelow, load.nSenders == 1 ? 3.0 : 100.0, ""});
    }

    static void CheckNewest(CField& field) {
        for (std::size_t i = 0; i < field.Size(); ++i) {
            if (!field.At(i).HasNewestRecord()) {
                throw std::runtime_error(field.Name(i) + " has not stored the newest record");
            }
        }
    }

    void MeasureHighestRates(CField& field, double dShareOfRun, const Wanted& wanted) {
        const auto found = InTurns(
            fmt::format("highest rate without loss, buffer {}", ReceiveBuffer()), m_Options.nRounds,
            field.Size(),
            [&](std::size_t i) { return Search(field.At(i), m_Options.dSeconds * dShareOfRun); });
        std::vector<MeasuredRounds> rounds;
        for (std::size_t i = 0; i < found.size(); ++i) {
            rounds.push_back({field.Name(i), RatesOf(found[i]), SenderWasLimit(found[i])});
        }
        m_Report.Add(
            fmt::format("Highest rate without loss, receive buffer {}, records/s", ReceiveBuffer()),
            rounds, wanted);
    }

    static HighestRate Search(CContender& who, double dSeconds) {
        try {
            return who.SearchHighestRate(dSeconds);
        } catch (const CNoRate&) {
            return {};
        }
    }

    const BenchOptions& m_Options;
    CReport& m_Report;
    const std::vector<NamedDaemon> m_Daemons;
};

}  // namespace

void MeasureCompare(const BenchOptions& options, CReport& report) {
    CCompareBench bench(options, report);
    bench.MeasureLoads();
    bench.MeasureRaisedBuffer();
}
