// A long run in short: links break, sessions serve, engineers come and go, records flow.
#include <thread>

#include "peers/Telnet.h"
#include "system/SystemTest.h"

namespace {

using testing::EndsWith;

constexpr std::uint32_t kFileBytes = kLogFileUnits * kRecordBytes;
constexpr std::int64_t kMemorySlackKib = 2048;  // less than eight sessions have

class Soak : public testing::Test {
protected:
    void SetUp() override {
        UseZoneOfNoon();
        m_Service.WriteFile("/hislog/full", m_strFile);
        ASSERT_TRUE(m_Service.Start(true));
        m_Agent.Register();
        m_nThreads = CountOf(m_Service, "task");
        m_nDescriptors = SteadyDescriptors(m_Service);
    }

    // The service has come to hold what it held at first, and no more.
    void ExpectNothingHeld() const {
        EXPECT_TRUE(WaitUntil([this] { return CountOf(m_Service, "task") == m_nThreads; }));
        EXPECT_TRUE(WaitUntil([this] { return CountOf(m_Service, "fd") == m_nDescriptors; }));
    }
    // All at once: live records, the same file from different places, and one that is cancelled.
    void UseSessions(std::vector<CReceiverSession>& sessions) {
        for (std::uint32_t n = 0; n < sessions.size(); ++n) {
            ASSERT_TRUE(sessions[n].ReceiveRecord());
            ASSERT_EQ(sessions[n].GetFile("full", n),
                      (UploadFileAnswer{kFileBytes, kGetHlogFound}));
        }
        for (std::uint32_t n = 0; n < sessions.size(); ++n) {
            ASSERT_TRUE(sessions[n].ReceiveFile(kFileBytes - n) == m_strFile.substr(n));
        }
        ASSERT_EQ(sessions[0].GetFile("full").byResult, kGetHlogFound);
        sessions[0].Cancel(1);
        sessions[0].ReceiveCancelled(1, std::size_t{2} * kFileBytes);  // records may be among it
    }
    void UseConsole() const {
        CTelnet stranger(m_Service.ConsolePort());
        stranger.ReadUntil("Password:");
        stranger.Send("quiet\r\n");
        ASSERT_EQ(stranger.ReadToEnd(), "<end>");
        CTelnet console(m_Service.ConsolePort());
        console.LogIn();
        ASSERT_EQ(CTelnet(m_Service.ConsolePort()).ReadToEnd(), "you.<end>");
        console.Send("set 0 100\r\n");
        ASSERT_THAT(console.ReadUntil("to quit send log. \r\n"), EndsWith("\r\n"));
        ASSERT_THAT(console.ReadUntil("[live]\r\n"), EndsWith("[live]\r\n"));
        console.Send("x\r\n");
        ASSERT_THAT(console.ReadUntil("gamma=2,\r\n"), EndsWith("gamma=2,\r\n"));
        console.Send("q\r\n");
        ASSERT_THAT(console.ReadToEnd(), EndsWith("<end>"));  // else the next one is turned away
    }

    void Round(bool bReset) {
        std::vector<CReceiverSession> sessions;
        for (int i = 0; i < 5; ++i) {
            sessions.push_back(OpenSession(m_Agent, m_Receiver));
            sessions.back().Handshake();
            sessions.back().Subscribe(std::vector<ClientAndType>{{0, 0}});
        }
        RequestSession(m_Agent, 1, m_Receiver.Port());
        ASSERT_EQ(m_Agent.ReceiveAnswer().value().dwResult, kNotStarted);
        m_Agent.StopListening();
        bReset ? m_Agent.Connection().Reset() : m_Agent.Connection().Close();
        ASSERT_NO_FATAL_FAILURE(UseSessions(sessions));  // which all works without the link
        ASSERT_NO_FATAL_FAILURE(UseConsole());
        m_Agent.Listen();
        ASSERT_TRUE(m_Agent.Accept());
        CTelnet(m_Service.ConsolePort()).LogIn();  // and goes
        m_Agent.Register();
        sessions.front().GetFile("full");
        sessions.front().Connection().Reset();  // in the middle of the file; the others just close
        sessions.clear();
        ExpectNothingHeld();
    }

    const std::string m_strFile = Pattern(kFileBytes);
    CAgent m_Agent{FreePort(SOCK_STREAM)};
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
        CLogClient live(m_Service.RecordPort());
        for (; bKeptUp && !stop.stop_requested(); nSent += 20) {
            live.Send(MakeRecord(0, kRealTimeType, "live"));
            bKeptUp = sender.Send(nSent, 20);
        }
    });
    std::int64_t nWarmKib = 0;
    for (int nRound = 0; nRound < 5; ++nRound) {
        ASSERT_NO_FATAL_FAILURE(Round(nRound % 2 == 0));
        nWarmKib = nRound == 1 ? MemoryKib(m_Service) : nWarmKib;
    }
    if (!kSanitized && !CService::IsEmulated()) {  // which keep what is freed
        EXPECT_LT(MemoryKib(m_Service), nWarmKib + kMemorySlackKib);
    }
    clients.request_stop();
    clients.join();
    EXPECT_TRUE(bKeptUp);
    const std::uint32_t nWrites = CountIn(strPath);  // passes over the multiples of the units
    EXPECT_EQ(nWrites - nWrites / kLogFileUnits, nSent);
    EXPECT_EQ(m_Service.Stop(), 0);
}

}  // namespace
