// One telnet client and the console: welcome, login, commands, and how connections come and go.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <system_error>
#include <vector>

#include "console/ConsoleHarness.h"

namespace {

using testing::HasSubstr;

constexpr const char* kBanner = "\r\n\r\nWelcome tarvik realtime log debug !\r\nPassword:";
const std::string kError = "\r\n!!!Command error!!!\r\n";

TEST_F(ConsoleTest, WelcomeShowsVersionAndWebServerPort) {
    WriteFile("/app/appversion", "Main 1.2\n" + std::string(80, 'v') + "\nlast");
    WriteFile("/etc/boa/boa.conf", "# Port 1\nPort 8080\nPort 90\n");
    Start();
    const std::string strWelcome = "Main 1.2\n\r\n" + std::string(79, 'v') + "\r\nv\n\r\nlast\r\n" +
                                   "WebServer Listen Port=8080\n\r\n" + kBanner;
    EXPECT_EQ(CTelnet(m_wPort).Read(strWelcome.size()), strWelcome);
}

TEST_F(ConsoleTest, WelcomeDoesWithoutItsFiles) {
    Start();
    const std::string strWelcome =
        std::string(" Cannot read version file to get programs' version.\r\n") +
        "WebServer Listen Port=\r\n" + kBanner;
    EXPECT_EQ(CTelnet(m_wPort).Read(strWelcome.size()), strWelcome);
    EXPECT_THAT(Trace(), HasSubstr(" DoWelcome\nDoWelcome fopen version file error.\n"));
}

TEST_F(ConsoleTest, AWelcomeThatDoesNotFitEndsTheConnection) {
    WriteFile("/app/appversion", std::string(200000, 'v'));
    Start();
    EXPECT_EQ(CTelnet(m_wPort).ReadToEnd(), "<end>");
    EXPECT_TRUE(WaitUntil([&] {
        return Trace().ends_with(" OnAccept\nCCommunicatThread OnAccept DoWelcome() failed.\n");
    }));
}

TEST_F(ConsoleTest, HelpBreaksAfterEveryFourthClient) {
    EXPECT_EQ(m_Console.BuildHelpText(), kHelpHead + "\r\n");
    for (const char* szName : {"a", "b", "c"}) {
        AddClient(7, 1, szName);
    }
    AddClient(-1, 1, std::string(60, 'd'));
    EXPECT_EQ(m_Console.BuildHelpText(),
              kHelpHead + "a=7,b=7,c=7," + std::string(50, 'd') + "=-1\r\n\t\t\r\n");
}

TEST_F(ConsoleTest, OnlyThePasswordLogsIn) {
    AddFiveClients();
    Start();
    const std::string wrong[] = {
        "QUIETHARBOR\r\n",
        "quietharbo\r\n",
        "quietharbor \r\n",
        " quietharbor\r\n",
        "quietharbor\n\r\n",
        "\r\n",
        "\r\nquietharbor\r\n",
        "q\r\n",
        "%s%s%s%s%n%n\r\n",
        std::string("quietha\0bor\r\n", 13),
        std::string("quietharbor\0\r\n", 14),
        std::string(512, 'q'),
        std::string(511, 'q') + "\r",
        std::string(511, 'q') + "\r\n",
    };
    for (const std::string& strLine : wrong) {
        const auto pClient = Connect();
        pClient->Send(strLine);
        EXPECT_EQ(pClient->ReadToEnd(), "<end>") << strLine;
        EXPECT_THAT(Trace(), HasSubstr(" OnConnectionRead\nCCommunicatThread OnConnectionRead "
                                       "ParseClientSent() failed.\n"));
    }
    LogIn();
}

TEST_F(ConsoleTest, OneLineOfAChunkCounts) {
    AddFiveClients();
    Start();
    const auto pClient = Connect();
    pClient->Send("quietharbor\r\n?\r\nq\r\n");
    EXPECT_EQ(pClient->Read(kHelp.size()), kHelp);
    pClient->Send("z\r\nq\r\n");
    EXPECT_EQ(pClient->Read(kError.size() + kHelp.size()), kError + kHelp);
    pClient->Send("Q\r\n");
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, CommandsThatStayAtThePrompt) {
    AddFiveClients();
    AddClient(3, 1, "shadowed");
    Start();
    const auto pClient = LogIn();
    const std::string strHelp = m_Console.BuildHelpText();
    for (const char* szGood : {"?", ""}) {
        pClient->Send(std::string(szGood) + "\r\n");
        EXPECT_EQ(pClient->Read(strHelp.size()), strHelp) << szGood;
    }
    const std::string bad[] = {
        "x",
        std::string(1, '\0'),
        "%",
        "\n",
        "? ",
        "qq",
        "set",
        "set 2",
        "set 2 0",
        "set 2 -1",
        "set 2 65536",
        "set 2 4294967301",
        "set 9 5",
        "set -1 5",
        "set 4294967296 5",
        "sett 2 5",
        "set2 5",
        std::string("set 2 5\0", 8),
        std::string("set\0 2 5", 8),
        "%n%n%s 2 5",
        std::string(510, 'a'),
    };
    for (const std::string& strLine : bad) {
        pClient->Send(strLine + "\r\n");
        EXPECT_EQ(pClient->Read(kError.size() + strHelp.size()), kError + strHelp) << strLine;
    }
    EXPECT_EQ(m_Console.GetStatus(), WAIT_SEND_COMMAND);
    EXPECT_TRUE(m_Control.IsSilent());
    pClient->Send(std::string(511, 'a') + "\r\n");
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, SetSwitchesALogClientOnAndXSwitchesItOff) {
    AddFiveClients();
    AddClient(99, m_Control.Port() + 65536, "low 16 bits of the port count");
    Start();
    const auto pClient = LogIn();
    const std::string strHelp = m_Console.BuildHelpText();
    const struct {
        const char* szLine;
        std::uint8_t byIndex;
        std::uint16_t wValue;
        const char* szExit;
    } cases[] = {
        {"set 2 100", 2, 100, "x"},
        {"SET 0 1", 0, 1, "X"},
        {"sEt 4 65535 more", 4, 65535, "exit\r\n"},
        {" set\t+1+513", 1, 513, "q\r\nx"},
        {"set 99 5", 99, 5, "xxx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szLine);
        pClient->Send(std::string(c.szLine) + "\r\n");
        EXPECT_EQ(m_Control.ReadHex(), FrameHex(c.byIndex, c.wValue));
        EXPECT_EQ(m_Console.GetStatus(), SENDING_REAL_TIME_LOG);
        EXPECT_EQ(pClient->Read(kSetReply.size()), kSetReply);
        pClient->Send("abc\r\nq\r\n?\r\n");  // discarded
        LetConsoleRead();
        pClient->Send(c.szExit);
        EXPECT_EQ(m_Control.ReadHex(), FrameHex(c.byIndex, 0));
        EXPECT_EQ(pClient->Read(strHelp.size()), strHelp);
        EXPECT_EQ(m_Console.GetStatus(), WAIT_SEND_COMMAND);
    }
    pClient->Send("q\r\n");
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, LinesMayComeInAnyPieces) {
    AddFiveClients();
    Start();
    const auto pClient = Connect();
    for (const std::string strLine : {"quietharbor\r\n", "?\r\n"}) {
        for (const char c : strLine) {
            pClient->Send(std::string(1, c));
            LetConsoleRead();
        }
        EXPECT_EQ(pClient->Read(kHelp.size()), kHelp);
    }
    for (const char* szPiece : {"set 2", " 3\r", "\n"}) {
        EXPECT_TRUE(m_Control.IsSilent());
        pClient->Send(szPiece);
        LetConsoleRead();
    }
    EXPECT_EQ(m_Control.ReadHex(), FrameHex(2, 3));
}

TEST_F(ConsoleTest, AFailedFrameEndsTheConnection) {
    AddClient(0, 65536, "zero");                         // port 0: the datagram cannot be sent
    AddClient(1, m_Control.Port() - 65536, "negative");  // can be switched on, but not off by 'x'
    Start();
    for (const bool bNegative : {false, true}) {
        const auto pClient = LogIn();
        pClient->Send(bNegative ? "set 1 5\r\n" : "set 0 5\r\n");
        if (bNegative) {
            EXPECT_EQ(pClient->Read(kSetReply.size()), kSetReply);
            pClient->Send("x");
        }
        EXPECT_EQ(pClient->ReadToEnd(), "<end>");
        EXPECT_TRUE(WaitUntil([&] { return m_Console.GetStatus() == WAIT_CONNECT; }));
    }
}

TEST_F(ConsoleTest, AReplyThatDoesNotFitEndsTheConnection) {
    for (int nClient = 0; nClient < 2000; ++nClient) {
        AddClient(nClient, 1, std::string(50, 'n'));
    }
    Start();
    const auto pClient = Connect();
    pClient->Send("quietharbor\r\n");
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, ASecondClientIsSentAway) {
    AddFiveClients();
    Start();
    auto pFirst = LogIn();
    CTelnet second(m_wPort);
    EXPECT_EQ(second.ReadToEnd(), "you.<end>");
    pFirst->Send("?\r\n");
    EXPECT_EQ(pFirst->Read(kHelp.size()), kHelp);
    pFirst.reset();
    EXPECT_TRUE(WaitUntil([&] { return m_Console.GetStatus() == WAIT_CONNECT; }));
    LogIn();
}

TEST_F(ConsoleTest, IdleLimitHoldsAfterLogin) {
    m_Console.SetTimeoutDelay(0);
    AddFiveClients();
    Start();
    const auto pClient = Connect();  // the login has a limit of its own
    LetConsoleRead();
    EXPECT_EQ(m_Console.GetStatus(), WAIT_LOGIN);
    pClient->Send("quietharbor\r\n");
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
    // The reply that was queued and not sent is gone; the next client starts with its welcome.
    EXPECT_EQ(CTelnet(m_wPort).Read(12), " Cannot read");
}

TEST_F(ConsoleTest, InitReportsAPortInUse) {
    Start();
    CCommunicatThread second;
    EXPECT_EQ(second.Init(m_wPort), -1);
    EXPECT_THAT(Trace(), HasSubstr(" Init\nCommunicatThread Init bind error.\n"));
}

TEST_F(ConsoleTest, ListensOnItsUsualPortWhenNoneIsGiven) {
    constexpr std::uint16_t kUsualPort = 1981;
    for (const int nPort : {0, -5}) {
        CCommunicatThread console;
        if (console.Init(nPort) != 0) {
            GTEST_SKIP() << "port 1981 of this machine is in use";
        }
        EXPECT_NO_THROW(CTelnet client(kUsualPort));
    }
}

TEST_F(ConsoleTest, StopBeforeTheThreadRunsEndsIt) {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    m_Console.Stop();
    EXPECT_EQ(m_Console.ThreadRun(), 0);
}

TEST_F(ConsoleTest, AQuitMessageEndsClientAndListener) {
    AddFiveClients();
    Start();
    const auto pClient = LogIn();
    PostPipeMsg(g_nMsgPipe[1], 4711);  // unknown: ignored
    PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_QUIT);
    EXPECT_EQ(pClient->ReadToEnd(), "<end>");
    EXPECT_TRUE(WaitUntil([&] {
        try {
            CTelnet probe(m_wPort);
            return false;
        } catch (const std::system_error&) {
            return true;
        }
    }));
}

// While it lives, the process can have one more descriptor and no second.
class COneMoreDescriptor {
public:
    COneMoreDescriptor() {
        getrlimit(RLIMIT_NOFILE, &m_Before);
        const CUniqueFd fdLast(dup(STDIN_FILENO));
        const rlimit limit{static_cast<rlim_t>(fdLast.Get()) + 1, m_Before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~COneMoreDescriptor() { setrlimit(RLIMIT_NOFILE, &m_Before); }
    COneMoreDescriptor(const COneMoreDescriptor&) = delete;
    COneMoreDescriptor& operator=(const COneMoreDescriptor&) = delete;

private:
    rlimit m_Before{};
};

// A client that cannot be accepted stays in the listener's queue, which must not be asked again and
// again; it is served as soon as there are descriptors.
TEST_F(ConsoleTest, WithoutDescriptorsTheServedClientGoesOn) {
    constexpr int kCommands = 50;
    AddFiveClients();
    testing::internal::CaptureStdout();
    Start();
    const auto pServed = LogIn();
    std::unique_ptr<CTelnet> pWaiting;
    {
        const COneMoreDescriptor limit;
        pWaiting = std::make_unique<CTelnet>(m_wPort);
        for (int nCommand = 0; nCommand < kCommands; ++nCommand) {
            pServed->Send("?\r\n");
            EXPECT_EQ(pServed->Read(kHelp.size()), kHelp);
        }
    }
    EXPECT_EQ(pWaiting->ReadToEnd(), "you.<end>");
    Stop();
    const std::string strOutput = testing::internal::GetCapturedStdout();
    std::size_t nAccepts = 0;
    for (std::size_t n = 0; (n = strOutput.find(" OnAccept() ", n)) != std::string::npos; ++n) {
        ++nAccepts;
    }
    EXPECT_GE(nAccepts, 3u);  // the served client, a failure, the refusal
    EXPECT_LT(nAccepts, kCommands / 2);
}

}  // namespace
