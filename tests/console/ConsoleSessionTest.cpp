// One telnet client and the console: welcome, login, commands, and how connections come and go.
#include <sys/resource.h>

#include <system_error>
#include <utility>
#include <vector>

#include "console/ConsoleHarness.h"

namespace {

const std::string kBanner = "\r\n\r\nWelcome tarvik realtime log debug !\r\nPassword:";
const std::string kError = "\r\n!!!Command error!!!\r\n" + kHelp;

TEST_F(ConsoleTest, WelcomeTellsWhatTheFilesSayUnlessItDoesNotFit) {
    Start();
    EXPECT_EQ(CTelnet(m_wPort).LogIn(),
              " Cannot read version file to get programs' version.\r\nWebServer Listen Port=\r\n" +
                  kBanner);
    EXPECT_TRUE(HasNoClient());
    std::filesystem::create_directories(m_strRoot + "/app");
    std::filesystem::create_directories(m_strRoot + "/etc/boa");
    Write("/etc/boa/boa.conf", "# Port 1\nPort 8080\nPort 90\n");
    Write("/app/appversion", "Main 1.2\n" + std::string(80, 'v') + "\nlast");
    EXPECT_EQ(CTelnet(m_wPort).LogIn(), "Main 1.2\n\r\n" + std::string(79, 'v') +
                                            "\r\nv\n\r\nlast\r\n" +
                                            "WebServer Listen Port=8080\n\r\n" + kBanner);
    EXPECT_TRUE(HasNoClient());
    Write("/app/appversion", std::string(200000, 'v'));
    EXPECT_EQ(CTelnet(m_wPort).ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, HelpBreaksAfterEveryFourthClient) {
    CCommunicatThread console;
    EXPECT_EQ(console.BuildHelpText(), kHelpHead + "\r\n");
    for (const int nIndex : {7, 7, 0, -1}) {
        console.AddLogClient({nIndex, 1, "name"});
    }
    EXPECT_EQ(console.BuildHelpText(), kHelpHead + "name=7,name=7,name=0,name=-1\r\n\t\t\r\n");
    EXPECT_EQ(m_Console.BuildHelpText(), kHelp);
}

TEST_F(ConsoleTest, OnlyThePasswordLogsIn) {
    Start();
    const std::pair<const char*, std::string> cases[] = {
        {"other case", "QUIETHARBOR\r\n"},
        {"one short", "quietharbo\r\n"},
        {"blank behind", "quietharbor \r\n"},
        {"line feed behind", "quietharbor\n\r\n"},
        {"empty line", "\r\nquietharbor\r\n"},
        {"NUL inside", std::string("quietha\0bor\r\n", 13)},
        {"NUL behind", std::string("quietharbor\0\r\n", 14)},
        {"512 bytes without an end", std::string(512, 'q')},
        {"end beyond byte 512", std::string(511, 'q') + "\r\n"},
    };
    for (const auto& [szName, strTyped] : cases) {
        CTelnet telnet(m_wPort);
        telnet.ReadUntil("Password:");
        telnet.Send(strTyped);
        // not a reset, even with bytes left unread
        ASSERT_EQ(telnet.ReadToEnd(), "<end>") << szName;
        EXPECT_TRUE(HasNoClient());
    }
}

TEST_F(ConsoleTest, EachLineDrawsItsReplyAndFrameHoweverItIsCut) {
    Start();
    CTelnet telnet(m_wPort);
    telnet.ReadUntil("Password:");
    const struct {
        const char* szName;
        std::vector<std::string> pieces;
        std::string strReply;
        std::string strFrame{};
    } cases[] = {
        {"byte by byte", {"q", "u", "i", "e", "t", "h", "a", "r", "bor", "\r", "\n"}, kHelp},
        {"empty line", {"\r\n"}, kHelp},
        {"NUL", {std::string("\0\r\n", 3)}, kError},
        {"key and more", {"q \r\n"}, kError},
        {"value missing", {"set 2\r\n"}, kError},
        {"value below the least", {"set 2 0\r\n"}, kError},
        {"value above the largest", {"set 2 65536\r\n"}, kError},
        {"index not configured", {"set 9 5\r\n"}, kError},
        {"other word", {"sett 2 5\r\n"}, kError},
        {"longest line", {std::string(510, 'a') + "\r\n"}, kError},
        {"several in a piece: the first", {"z\r\nq\r\nset 2"}, kError},
        {"line end apart", {"?", "\r\n"}, kHelp},
        {"CR and LF apart", {"set 2", " 513\r", "\n"}, kSetReply, FrameHex(2, 513)},
        {"anything but x while relaying", {"?\r\nq\r\n", "set 4 5\r\n"}, ""},
        {"x among others", {"q\r\nexit\r\n"}, kHelp, FrameHex(2, 0)},
        {"largest value", {"sEt 4 65535 more\r\n"}, kSetReply, FrameHex(4, 65535)},
        {"X alone", {"X"}, kHelp, FrameHex(4, 0)},
        {"511 bytes without an end", {std::string(510, 'a'), "a"}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szName);
        for (const std::string& strPiece : c.pieces) {
            telnet.Send(strPiece);
            ASSERT_NO_FATAL_FAILURE(LetConsoleRead());
        }
        ASSERT_EQ(telnet.Read(c.strReply.size()), c.strReply);
        EXPECT_EQ(NextFrame(0), c.strFrame);
    }
    telnet.Send("a");  // byte 512
    EXPECT_EQ(telnet.ReadToEnd(), "<end>");
}

TEST_F(ConsoleTest, QuitAndAFrameThatCannotBeSentEndTheConnection) {
    m_Console.AddLogClient({7, 65536, "port 0"});  // nothing can be sent there
    Start();
    for (const char* szLine : {"q\r\n", "Q\r\n", "set 7 5\r\n"}) {
        CTelnet telnet = LogIn();
        telnet.Send(szLine);
        ASSERT_EQ(telnet.ReadToEnd(), "<end>") << szLine;
        EXPECT_TRUE(HasNoClient());
    }
}

TEST_F(ConsoleTest, IdleLimitHoldsAfterLoginAndDropsWhatIsQueued) {
    m_Console.SetTimeoutDelay(0);
    Start();
    CTelnet telnet(m_wPort);
    telnet.ReadUntil("Password:");
    LetConsoleRead();  // the login has a limit of its own
    telnet.Send("quietharbor\r\n");
    EXPECT_EQ(telnet.ReadToEnd(), "<end>");  // the help text was queued
    EXPECT_EQ(CTelnet(m_wPort).Read(12), " Cannot read");
}

TEST_F(ConsoleTest, InitWantsAPortOfItsOwnAndHasAUsualOne) {
    Start();
    CCommunicatThread second;
    EXPECT_EQ(second.Init(m_wPort), -1);
    EXPECT_TRUE(IsTraced(" Init\nCommunicatThread Init bind error.\n"));
    for (const int nPort : {0, -5}) {
        CCommunicatThread usual;
        if (usual.Init(nPort) != 0) {
            GTEST_SKIP() << "port 1981 of this machine is in use";
        }
        EXPECT_NO_THROW(CTelnet telnet(1981));
    }
}

TEST_F(ConsoleTest, AClientGetsItsTurnBetweenMessagesUntilQuitEndsAll) {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    for (const int nId :
         {LOG_THREAD_DATA_ARRIVED, 4711, LOG_THREAD_DATA_ARRIVED, LOG_THREAD_QUIT}) {
        EXPECT_TRUE(PostPipeMsg(g_nMsgPipe[1], nId));
    }
    CTelnet telnet(m_wPort);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_Console.ThreadRun(), 0);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::ContainsRegex("DATA_ARRIVED.*OnAccept.*DATA_ARRIVED.*QUIT.*exit"));
    EXPECT_THAT(telnet.ReadToEnd(), testing::EndsWith("<end>"));
    EXPECT_THROW(CTelnet probe(m_wPort), std::system_error);
}

// A client that cannot be accepted stays in the listener's queue, which must not be asked again and
// again; it is served as soon as there are descriptors.
TEST_F(ConsoleTest, WithoutDescriptorsTheServedClientGoesOnAndTheListenerRests) {
    testing::internal::CaptureStdout();
    Start();
    CTelnet served = LogIn();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int nLast = CUniqueFd(dup(0)).Get();
    const rlimit limit{static_cast<rlim_t>(nLast) + 1, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
    CTelnet waiting(m_wPort);  // takes the last descriptor
    for (int nCommand = 0; nCommand < 50; ++nCommand) {
        served.Send("?\r\n");
        ASSERT_EQ(served.Read(kHelp.size()), kHelp);
    }
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(waiting.ReadToEnd(), "you.<end>");
    m_Console.Stop();
    m_thread.join();
    std::istringstream output(testing::internal::GetCapturedStdout());
    int nAccepts = 0;  // the served client, failures, the refusal
    for (std::string strLine; std::getline(output, strLine);) {
        nAccepts += strLine == "CommunicatThread OnAccept() " ? 1 : 0;
    }
    EXPECT_THAT(nAccepts, testing::AllOf(testing::Ge(3), testing::Lt(25)));
}

}  // namespace
