// History uploads: how fast full day's files get to one receiver and to five, against a bare sender
// of the same bytes; and how many records a second are stored while five sessions want all of them.
#include <fmt/format.h>

#include <atomic>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareUpload.h"
#include "bench/BenchMain.h"
#include "bench/Intakes.h"
#include "bench/Measure.h"
#include "bench/PacedSender.h"
#include "bench/RateSearch.h"
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
        if (!m_Service.Start(true)) {
            throw std::runtime_error(fmt::format("{}: does not start", options.strService));
        }
        m_Agent.Register();
        m_Intake = IntakeOf(m_Service);
        m_Sender.emplace(m_Intake.wPort, 0);
        // The sessions inherit the processor of the intake, the receivers that of this thread.
        PinThread(m_Intake.nTid, Processor::Last);
        PinThread(0, Processor::First);
    }

    Json Measure() {
        Json result;
        result["service"] = m_Options.strService;
        result["rounds"] = m_Options.nRounds;
        result["seconds"] = m_Options.dSeconds;
        if (!FileIsIntact()) {
            throw std::runtime_error("the file does not arrive as it is");
        }
        result["file_mb_per_s"]["one"] = MeasureFiles(1);
        result["file_mb_per_s"]["five"] = MeasureFiles(kUploadSlots);
        result["highest_record_rate_without_loss"] = MeasureRecords();
        return result;
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

    // The two take turns; who begins changes with the round, so a drift of the machine hits both.
    Json MeasureFiles(int nReceivers) {
        std::vector<double> service;
        std::vector<double> bare;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            Say(fmt::format("files to {}: round {} of {}", nReceivers, nRound + 1,
                            m_Options.nRounds));
            for (int nTurn = 0; nTurn < 2; ++nTurn) {
                if ((nRound + nTurn) % 2 == 0) {
                    service.push_back(ServiceSpeed(nReceivers));
                } else {
                    bare.push_back(BareSpeed(nReceivers));
                }
            }
        }
        Json result = CompareRounds({"service", service}, {"bare", bare});
        result["wanted_ratio"] = kWantedFileRatio;
        result["met"] = result["ratio"] >= kWantedFileRatio;
        return result;
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
        m_ForwardedShares.push_back(static_cast<double>(readers.Bytes()) / dWanted);
        return found;
    }

    HighestRate RateWithoutReaders() {
        CReceiver receiver(0, kSlowBuffer);
        Sessions sessions = StartSessions(receiver, kUploadSlots);
        SubscribeToAll(sessions);
        SendRecords(kFillRate, m_Options.dSeconds);
        return HighestRecordRate();
    }

    Json MeasureRecords() {
        std::vector<HighestRate> none;
        std::vector<HighestRate> reading;
        std::vector<HighestRate> silent;
        for (int nRound = 0; nRound < m_Options.nRounds; ++nRound) {
            Say(fmt::format("records: round {} of {}", nRound + 1, m_Options.nRounds));
            none.push_back(HighestRecordRate());
            reading.push_back(RateWithReaders());
            silent.push_back(RateWithoutReaders());
        }
        Json result;
        result["receivers_read"] = Judged(reading, none);
        result["receivers_read"]["forwarded_share"] = Rounded(Median(m_ForwardedShares));
        result["receivers_never_read"] = Judged(silent, none);
        return result;
    }

    static Json Judged(const std::vector<HighestRate>& sessions,
                       const std::vector<HighestRate>& none) {
        Json result = CompareRounds({"sessions", RatesOf(sessions)}, {"none", RatesOf(none)});
        result["sender_was_the_limit"] = {{"sessions", SenderWasLimit(sessions)},
                                          {"none", SenderWasLimit(none)}};
        result["wanted_ratio"] = kWantedRecordRatio;
        result["met"] = result["ratio"] >= kWantedRecordRatio;
        return result;
    }

    BenchOptions m_Options;
    const std::string m_strFile = FileContent();
    CAgent m_Agent;
    CService m_Service;
    Intake m_Intake;
    std::optional<CPacedSender> m_Sender;
    std::vector<double> m_ForwardedShares;
};

}  // namespace

int main(int argc, char** argv) {
    BenchOptions options;
    options.strName = "tarvik-bench-upload";
    options.strDescription =
        "Measures how fast stored files get to receivers, against a bare sender of the same "
        "bytes, and what receivers of live records cost the intake. Prints one JSON object.";
    return BenchMain(argc, argv, options,
                     [](const BenchOptions& given) { return CUploadBench(given).Measure(); });
}
