// The running service when memory is not there, at each allocation of each of its threads in turn,
// and when the disk does not take what is flushed: what the failure is about may be lost, nothing
// else.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>

#include <cerrno>
#include <exception>
#include <system_error>

#include "faults/FaultyLibrary.h"
#include "peers/Telnet.h"
#include "support/UniqueFd.h"
#include "system/SystemTest.h"

namespace {

// The service with that library in front of it.
class Scarcity : public testing::Test {
protected:
    void SetUp() override {
        if (kSanitized || CService::IsEmulated()) {
            GTEST_SKIP() << "no library can be put in front of this service";
        }
        m_Service.WriteFile("/plan", std::string(sizeof(FaultPlan), '\0'));
        const CUniqueFd file(open(m_Service.Path("/plan").c_str(), O_RDWR | O_CLOEXEC));
        m_pPlan = static_cast<FaultPlan*>(
            mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0));
        ASSERT_NE(static_cast<void*>(m_pPlan), MAP_FAILED) << std::strerror(errno);
        m_Service.SetEnvironment("FAULTY_LIBRARY", m_Service.Path("/plan"));
        // Where no blank divides its path into two.
        std::filesystem::copy_file(FAULTY_LIBRARY, m_Service.Path("/faulty.so"));
        m_Service.SetEnvironment("LD_PRELOAD", m_Service.Path("/faulty.so"));
        m_Service.WriteFile("/app/appversion", "1.0\n");
        m_Service.WriteFile("/hislog/20010101.log", std::string(kFileBytes, 'h'));
        ASSERT_TRUE(m_Service.Start(true)) << m_Service.Trace();
        m_Agent.Register();
    }
    void TearDown() override {
        if (m_pPlan != nullptr) {
            EXPECT_EQ(m_Service.Stop(), 0);
            munmap(m_pPlan, sizeof(FaultPlan));
        }
    }

    // Has act meet a failure at the first allocation of the thread, then at its second, and so on
    // until it gets through without one. After each, work must work.
    template <class Act, class Work>
    void FailEach(const char* szThread, const Act& act, const Work& work) {
        constexpr int kMost = 500;
        std::strncpy(m_pPlan->szThread, szThread, sizeof(m_pPlan->szThread) - 1);
        int nAt = 1;
        for (bool bFailed = true; bFailed && nAt < kMost; ++nAt) {
            const std::int32_t nBefore = m_pPlan->nFailed;
            m_pPlan->nCountdown = nAt;
            m_nLimitMs = 200;  // what is lost does not come
            try {
                act();
            } catch (const std::exception&) {
                // A peer whose connection ends is not told why.
            }
            m_pPlan->nCountdown = 0;
            m_nLimitMs = 10000;
            bFailed = m_pPlan->nFailed != nBefore;
            ASSERT_NO_THROW(work()) << szThread << ", allocation " << nAt;
            if (HasFailure()) {
                FAIL() << szThread << ", allocation " << nAt << "; " << m_Service.Trace();
            }
        }
        EXPECT_GT(nAt, 2) << szThread << " allocates nothing";
        EXPECT_LT(nAt, kMost) << szThread;
    }

    static void Need(bool bTrue, const char* szWhat) {
        if (!bTrue) {
            throw std::runtime_error(szWhat);
        }
    }

    void Dialogue() {
        CTelnet telnet(m_Service.ConsolePort());
        telnet.LogIn();
        telnet.Send("set 0 1\r\n");
        telnet.ReadUntil("send log. \r\n");
        m_Alpha.Send(MakeRecord(0, kRealTimeType, "live"));
        Need(telnet.ReadUntil("live]\r\n").ends_with("live]\r\n"), "no line comes");
        telnet.Send("x");
        telnet.ReadUntil("\r\n");
        telnet.Send("q\r\n");
        Need(telnet.ReadToEnd().ends_with("<end>"), "the connection does not end");
    }

    void Session() {
        RequestSession(m_Agent, ++m_nRequest, m_Receiver.Port());
        auto accepted = m_Receiver.Accept(m_nLimitMs);
        Need(accepted.has_value(), "no session comes");
        CReceiverSession& session = *accepted;
        session.Handshake();
        SubscribeToAll(session);
        m_Alpha.Send(MakeRecord(0, 0, "copied"));
        Need(session.ReceiveRecord(m_nLimitMs).has_value(), "no record comes");
        Need(session.GetFile(kFile) == UploadFileAnswer{kFileBytes, kGetHlogFound}, "no file");
        Need(session.ReceiveFile(kFileBytes) == std::string(kFileBytes, 'h'), "no bytes");
        session.SetLanguage(static_cast<std::uint8_t>(m_nRequest % 2));
        session.Cancel(kCancelValue);
        session.Await(UM_CANCEL_ACK);
    }

    // A request whose session cannot connect is answered.
    void Refusal() {
        RequestSession(m_Agent, ++m_nRequest, kNobody);
        std::optional<AgentAnswer> answer;
        do {  // of what was asked before
            answer = m_Agent.ReceiveAnswer(m_nLimitMs);
        } while (answer && answer->dwId != m_nRequest);
        Need(answer.has_value(), "no answer comes");
    }

    // The intake lives, stores and has slots.
    void Store() {
        const std::uint32_t nBefore = CountIn(TodayPath(m_Service));
        m_Alpha.Send(MakeRecord(0, 0, "stored"));
        Need(WaitUntil([&] { return CountIn(TodayPath(m_Service)) > nBefore; }), "nothing stored");
    }

    static constexpr const char* kFile = "20010101.log";
    static constexpr std::uint32_t kFileBytes = 5000;

    CAgent m_Agent;
    CService m_Service{TARVIK_LOGD, m_Agent.Port()};
    CReceiver m_Receiver;
    CLogClient m_Alpha{m_Service.RecordPort(), m_Service.ControlPort(0)};
    std::uint32_t m_nRequest = 0;
    int m_nLimitMs = 10000;
    FaultPlan* m_pPlan = nullptr;
};

TEST_F(Scarcity, OfMemoryEndsOneConnectionAndNoThread) {
    const auto Talk = [this] { Dialogue(); };
    const auto Serve = [this] { Session(); };
    const auto Refuse = [this] { Refusal(); };
    const auto Both = [this] {
        Store();
        Session();
    };
    FailEach("logd.console", Talk, Talk);
    FailEach("logd.upload0", Serve, Serve);
    FailEach("logd.cmdlink", Refuse, Refuse);
    FailEach("logd.intake", Both, Both);
}

// A session whose change of the language waits for the disk keeps no other from its handshake.
TEST_F(Scarcity, OfDiskTimeHoldsUpOneSession) {
    CReceiverSession writer = OpenSession(m_Agent, m_Receiver, 1);
    writer.Handshake();
    m_pPlan->nHoldFlushes = 1;
    writer.SetLanguage(1);
    ASSERT_TRUE(WaitUntil([this] { return m_pPlan->nHeld > 0; }));
    CReceiverSession other = OpenSession(m_Agent, m_Receiver, 2);
    EXPECT_NO_THROW(other.Handshake());
    EXPECT_NO_THROW(Store());
    m_pPlan->nHoldFlushes = 0;
    ExpectReady(writer);
}

}  // namespace
