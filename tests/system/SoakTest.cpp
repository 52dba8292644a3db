// A long run in short: links break, sessions fail and serve, engineers come and go, records flow.
#include <filesystem>
#include <thread>

#include "peers/Telnet.h"
#include "system/SystemTest.h"
#include "tools/Agent.h"
#include "tools/Receiver.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;

constexpr int kFailures = kSanitized ? 20 : 100;  // of each kind in a round
constexpr std::uint32_t kFileBytes = kLogFileUnits * kRecordBytes;
constexpr std::int64_t kMemorySlackKib = 1024;

enum class Break : std::uint8_t { kClose, kReset, kRefuse };  // how the agent leaves the service
enum Result : std::uint32_t { kNotStarted = 0, kNoConnect = 2, kRefused = 3, kNoHandshake = 5 };

// Connects of this machine that failed so far.
std::int64_t FailedConnects() {
    return KernelNumber("/proc/net/snmp", "Tcp:", 7);
}

class Soak : public testing::Test {
protected:
    void SetUp() override {
        UseZone(ZoneBeforeMidnight(12 * 60 * 60));  // no other day begins
        m_Service.WriteFile("/hislog/full", std::string(kFileBytes, 'f'));
        ASSERT_TRUE(m_Service.Start(true));
        m_Agent.Register();
        m_nThreads = Count("task");
        m_nDescriptors = Count("fd");
    }

    std::string Process() const { return "/proc/" + std::to_string(m_Service.Pid()) + "/"; }
    std::ptrdiff_t Count(const char* szDirectory) const { return CountOf(m_Service, szDirectory); }
    // The service has come to hold what it held at first, and no more. Its memory in KiB.
    std::int64_t ExpectNothingHeld() const {
        EXPECT_TRUE(WaitUntil([this] { return Count("task") == m_nThreads; })) << Count("task");
        EXPECT_TRUE(WaitUntil([this] { return Count("fd") == m_nDescriptors; })) << Count("fd");
        return KernelNumber(Process() + "status", "VmRSS:", 1);
    }

    void Request(std::uint16_t wPort) {
        AgentRequest request;
        request.wPort = wPort;
        m_Agent.Send(MakeHlogRequest(1, request));
    }
    void ExpectAnswer(Result eResult) {
        const auto answer = m_Agent.ReceiveAnswer();
        ASSERT_TRUE(answer) << PeerEndText(m_Agent.End());
        ASSERT_EQ(answer->dwResult, eResult);
    }
    CReceiverSession Open() {
        Request(m_Receiver.Port());
        auto session = m_Receiver.Accept();
        if (!session) {
            throw std::runtime_error("no session");
        }
        session->AwaitHello();
        return std::move(*session);
    }

    void FailSessions() {
        for (int i = 0; i < kFailures; ++i) {
            Request(1);  // a port that no program listens on
            ASSERT_NO_FATAL_FAILURE(ExpectAnswer(kNoConnect));
            Open().SendHelloAck(kHelloRefused);
            ASSERT_NO_FATAL_FAILURE(ExpectAnswer(kRefused));
            Open().Connection().Reset();
            ASSERT_NO_FATAL_FAILURE(ExpectAnswer(kNoHandshake));
            CReceiverSession refused = Open();
            refused.SendHelloAck();
            refused.SendInfoAck(kInfoRefused);
            ASSERT_EQ(refused.AwaitEnd(), PeerEnd::kClosed);
        }
    }

    void UseSession(CReceiverSession& session) {
        ASSERT_TRUE(session.ReceiveRecord());
        ASSERT_EQ(session.GetFile("full"), (UploadFileAnswer{kFileBytes, kGetHlogFound}));
        ASSERT_EQ(session.ReceiveFile(kFileBytes).size(), kFileBytes);
        ASSERT_EQ(session.GetFile("full").byResult, kGetHlogFound);
        session.Cancel(1);
        session.ReceiveCancelled(1, std::size_t{2} * kFileBytes);  // records may be among it
    }
    void UseConsole() {
        CTelnet console(m_Service.ConsolePort());
        console.LogIn();
        console.Send("set 0 100\r\n");
        ASSERT_THAT(console.ReadUntil("to quit send log. \r\n"), EndsWith("\r\n"));
        CLogClient(m_Service.RecordPort()).Send(MakeRecord(0, kRealTimeType, "live"));
        ASSERT_THAT(console.ReadUntil("[live]\r\n"), EndsWith("[live]\r\n"));
        console.Send("x\r\n");
        ASSERT_THAT(console.ReadUntil("gamma=2,\r\n"), EndsWith("gamma=2,\r\n"));
        console.Send("q\r\n");
        ASSERT_THAT(console.ReadToEnd(), EndsWith("<end>"));  // else the next one is turned away
    }

    // The link breaks, and all that works without it is used until the service is back.
    void BreakLink(Break eBreak, std::vector<CReceiverSession>& sessions) {
        const std::int64_t nFailed = FailedConnects();
        bool bListens = eBreak != Break::kRefuse;
        if (!bListens) {
            m_Agent.StopListening();
        }
        eBreak == Break::kReset ? m_Agent.Connection().Reset() : m_Agent.Connection().Close();
        const CDeadline limit(kPeerLimitMs);
        for (std::size_t i = 0; !bListens || !m_Agent.Accept(0); ++i) {
            ASSERT_GT(limit.LeftMs(), 0) << "the service does not try to connect";
            ASSERT_NO_FATAL_FAILURE(UseSession(sessions[i % sessions.size()]));
            ASSERT_NO_FATAL_FAILURE(UseConsole());
            if (!bListens && FailedConnects() > nFailed) {
                m_Agent.Listen();
                bListens = true;
            }
        }
        m_Agent.Register();
    }

    void Round(Break eBreak) {
        ExpectNothingHeld();  // by the sessions of the round before
        ASSERT_NO_FATAL_FAILURE(FailSessions());
        ExpectNothingHeld();  // all slots are free
        std::vector<CReceiverSession> sessions;
        for (int i = 0; i < 5; ++i) {
            sessions.push_back(Open());
            sessions.back().SendHelloAck();
            sessions.back().AwaitInfo();
            sessions.back().SendInfoAck();
            sessions.back().Subscribe(std::vector<ClientAndType>{{0, 0}});
        }
        Request(m_Receiver.Port());
        ASSERT_NO_FATAL_FAILURE(ExpectAnswer(kNotStarted));
        ASSERT_NO_FATAL_FAILURE(BreakLink(eBreak, sessions));
        sessions.front().GetFile("full");
        sessions.front().Connection().Reset();  // in the middle of the file; the others just close
    }

    CAgent m_Agent;
    CReceiver m_Receiver;
    CService m_Service{TARVIK_LOGD, m_Agent.Port()};
    std::ptrdiff_t m_nThreads = 0;
    std::ptrdiff_t m_nDescriptors = 0;
};

TEST_F(Soak, StoresEveryRecordAndKeepsNothing) {
    const std::string strPath = TodayPath(m_Service);
    std::uint32_t nSent = 0;
    bool bKeptUp = true;
    std::jthread clients([&](const std::stop_token& stop) {
        CNumberedSender sender(m_Service.RecordPort(), strPath);
        for (; bKeptUp && !stop.stop_requested(); nSent += 20) {
            bKeptUp = sender.Send(nSent, 20);
        }
    });
    ASSERT_NO_FATAL_FAILURE(Round(Break::kReset));
    const std::int64_t nWarmKib = ExpectNothingHeld();
    for (const Break eBreak :
         {Break::kClose, Break::kRefuse, Break::kReset, Break::kClose, Break::kReset}) {
        ASSERT_NO_FATAL_FAILURE(Round(eBreak));
    }
    const std::int64_t nKib = ExpectNothingHeld();
    if (!kSanitized && !CService::IsEmulated()) {  // which keep what is freed
        EXPECT_LT(nKib, nWarmKib + kMemorySlackKib);
    }
    clients.request_stop();
    clients.join();
    EXPECT_TRUE(bKeptUp);
    const std::uint32_t nWrites = CountIn(strPath);  // passes over the multiples of the units
    EXPECT_EQ(nWrites - nWrites / kLogFileUnits, nSent);
    EXPECT_EQ(m_Service.Stop(), 0);
}

}  // namespace
