// History uploads: how fast full day's files get to one receiver and to five, against a bare sender
// of the same bytes; and how many records a second are stored while five sessions want all of them.
#include <fmt/format.h>

#include <array>
#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareUpload.h"
#include "bench/Benches.h"
#include "bench/Intakes.h"
#include "bench/Measure.h"
#include "bench/PacedSender.h"
#include "bench/RateSearch.h"
#include "bench/Rest.h"
#include "bench/UploadSessions.h"
#include "core/ThreadMsg.h"
#include "logstore/LogRecord.h"
#include "peers/Agent.h"
#include "peers/Receiver.h"

namespace {

constexpr double kWantedFileRatio = 0.8;    // of the speed of the bare sender
constexpr double kWantedRecordRatio = 0.5;  // of the rate without sessions

constexpr double kShareOfRun = 0.25;  // length of a try in the search for the highest rate
constexpr double kFillRate = 20000;   // records per second that fill what nobody reads

constexpr const char* kNoReceivers = "no receivers";
constexpr const char* kFileName = "20010101.log";
constexpr std::size_t kFileBytes = kLogFileUnits * kRecordBytes;

constexpr int kSlowBuffer = 4096;  // of a receiver that never reads: full soon

// A full day's file in size; what stands in it is nobody's concern.
std::string FileContent() {
    std::string strContent(kFileBytes, '\0');
    for (std::size_t i = 0; i < kFileBytes; ++i) {
        strContent[i] = static_cast<char>(i % 251);
    }
    return strContent;
}

// Runs act(session) on a thread for each session, until all have returned.
template <class Act>
void ForEach(Sessions& sessions, const Act& act) {
    std::vector<std::thread> threads;
    for (CReceiverSession& session : sessions) {
        threads.emplace_back([&act, &session] { act(session); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// Megabytes per second that all sessions together receive in whole files. ask(session) is what
// brings the next file on its way.
template <class Ask>
double Speed(Sessions& sessions, double dSeconds, const Ask& ask) {
    const std::int64_t nBegin = NowNs();
    const std::int64_t nEnd = nBegin + static_cast<std::int64_t>(dSeconds * 1e9);
    std::atomic<std::uint64_t> nBytes{0};
    ForEach(sessions, [&](CReceiverSession& session) {
        while (NowNs() < nEnd) {
            ask(session);
            nBytes += session.ReceiveFile(kFileBytes, [](const std::uint8_t*, std::size_t) {});
        }
    });
    return 1e3 * static_cast<double>(nBytes) / static_cast<double>(NowNs() - nBegin);
}

void AskForFile(CReceiverSession& session) {
    if (session.GetFile(kFileName) != UploadFileAnswer{kFileBytes, kGetHlogFound}) {
        throw std::runtime_error("the service does not send the file");
    }
}

class CUploadBench {
public:
    explicit CUploadBench(const BenchOptions& options)
        : m_Options(options), m_Service(options.strService, m_Agent.Port()) {
        m_Service.WriteFile(std::string("/hislog/") + kFileName, m_strFile);
        StartService(m_Service);
        m_Agent.Register();
        m_Intake = IntakeOf(m_Service);
        m_Sender.emplace(m_Intake.wPort, 0);
        // The sessions inherit the processor of the intake, the receivers that of this thread.
        PinThread(m_Intake.nTid, Processor::kLast);
        PinThread(0, Processor::kFirst);
    }

    void Measure(CReport& report) {
        if (!FileIsIntact()) {
            throw std::runtime_error("the file does not arrive as it is");
        }
        MeasureFiles(report, "one", 1);
        MeasureFiles(report, "five", kUploadSlots);
        MeasureRecords(report);
    }

private:
    Sessions StartSessions(CReceiver& receiver, int nSessions) {
        return ::StartSessions(m_Service, m_Agent, receiver, nSessions);
    }

    bool FileIsIntact() {
        CReceiver receiver;
        Sessions sessions = StartSessions(receiver, 1);
        AskForFile(sessions.front());
        return sessions.front().ReceiveFile(kFileBytes) == m_strFile;
    }

    double ServiceSpeed(int nReceivers) {
        CReceiver receiver;
        Sessions sessions = StartSessions(receiver, nReceivers);
        return Speed(sessions, m_Options.dSeconds, AskForFile);
    }

    double BareSpeed(int nReceivers) const {
        CReceiver receiver;
        const CBareUpload bare(receiver.Port(), nReceivers, m_strFile);
        Sessions sessions;
        for (int i = 0; i < nReceivers; ++i) {
            sessions.push_back(AcceptSession(receiver));
        }
        return Speed(sessions, m_Options.dSeconds, [](CReceiverSession&) {});
    }

    void MeasureFiles(CReport& report, const char* szHowMany, int nReceivers) {
        const auto speeds = InTurns(
            fmt::format("files to {}", szHowMany), m_Options.nRounds, 2, [&](std::size_t nWho) {
                return nWho == 0 ? ServiceSpeed(nReceivers) : BareSpeed(nReceivers);
            });
        report.Add(fmt::format("Upload of files to {}, MB/s", szHowMany),
                   {{kService, speeds[0]}, {kBare, speeds[1]}},
                   {Relation::kAtLeast, kWantedFileRatio, kBare});
    }

    RateTry SendRecords(double dRate, double dSeconds) {
        const std::int64_t nBefore = m_Intake.Stored();
        const SendResult sent = m_Sender->Send(dRate, dSeconds);
        return {sent.Rate(), m_Intake.WaitStored(nBefore + sent.nSent) == nBefore + sent.nSent};
    }

    HighestRate HighestRecordRate() {
        return FindHighestRate(
            [this](double dRate) { return SendRecords(dRate, m_Options.dSeconds * kShareOfRun); });
    }

    HighestRate RateWithReaders() {
        CReceiver receiver;
        Sessions sessions = StartSessions(receiver, kUploadSlots);
        SubscribeToAll(sessions);
        const CReaders readers(sessions);
        const std::int64_t nBefore = m_Sender->Sent();
        const HighestRate found = HighestRecordRate();
        const auto dWanted = static_cast<double>(m_Sender->Sent() - nBefore) * kUploadSlots *
                             double(ForwardedBytes(m_Sender->LastText().size()));
        m_ForwardedPercents.push_back(100 * static_cast<double>(readers.Bytes()) / dWanted);
        m_UsPerReceiver.push_back(UsPerReceiver());
        return found;
    }

    // Of the threads of the sessions, at a rate that they keep up with.
    double UsPerReceiver() {
        const std::int64_t nBefore = SessionsNs();
        const std::int64_t nSent = m_Sender->Send(kFillRate, m_Options.dSeconds).nSent;
        SleepNs(kSettleNs);
        return static_cast<double>(SessionsNs() - nBefore) * 1e-3 /
               static_cast<double>(nSent * kUploadSlots);
    }

    std::int64_t SessionsNs() const {
        std::int64_t nNs = 0;
        for (int nSlot = 0; nSlot < kUploadSlots; ++nSlot) {
            const pid_t nTid = m_Service.Thread(fmt::format("logd.upload{}", nSlot));
            nNs += UseOfThread(m_Service.Pid(), nTid).nCpuNs;
        }
        return nNs;
    }

    HighestRate RateWithoutReaders() {
        CReceiver receiver(0, kSlowBuffer);
        Sessions sessions = StartSessions(receiver, kUploadSlots);
        SubscribeToAll(sessions);
        SendRecords(kFillRate, m_Options.dSeconds);
        return HighestRecordRate();
    }

    void MeasureRecords(CReport& report) {
        const std::array<HighestRate (CUploadBench::*)(), 3> ways = {
            &CUploadBench::HighestRecordRate, &CUploadBench::RateWithReaders,
            &CUploadBench::RateWithoutReaders};
        Turns<HighestRate> found(ways.size());
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            SayRound("records", nRound + 1, m_Options.nRounds);
            for (std::size_t i = 0; i < ways.size(); ++i) {
                found[i].push_back((this->*ways[i])());
            }
        }
        const MeasuredRounds none{kNoReceivers, RatesOf(found[0]), SenderWasLimit(found[0])};
        const char* const szWho[] = {"", "read", "never read"};
        for (std::size_t i = 1; i < ways.size(); ++i) {
            report.Add(
                fmt::format("Highest rate without loss with five receivers that {}, records/s",
                            szWho[i]),
                {{kService, RatesOf(found[i]), SenderWasLimit(found[i])}, none},
                {Relation::kAtLeast, kWantedRecordRatio, kNoReceivers});
        }
        report.Add("Live records that got to those that read, %",
                   {{kService, m_ForwardedPercents}});
        report.Add("CPU of a record for each of five receivers, their threads, µs",
                   {{kService, m_UsPerReceiver}});
    }

    BenchOptions m_Options;
    const std::string m_strFile = FileContent();
    CAgent m_Agent;
    CService m_Service;
    Intake m_Intake;
    std::optional<CPacedSender> m_Sender;
    std::vector<double> m_ForwardedPercents;
    std::vector<double> m_UsPerReceiver;
};

}  // namespace

void MeasureUpload(const BenchOptions& options, CReport& report) {
    CUploadBench(options).Measure(report);
}
