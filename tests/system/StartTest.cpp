// Start and stop: modes, what is printed, every failure of the start with its status and trace.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <thread>

#include "peers/Telnet.h"
#include "system/SystemTest.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

TEST(Start, TakesClientsThatAreWholeAndPrintsItsStepsInTheForeground) {
    CService service(TARVIK_LOGD);
    std::string strConfig = service.DefaultConfiguration();
    strConfig.replace(strConfig.find("APP = beta\n"), 11, "");
    strConfig.replace(strConfig.find("gamma"), 5, std::string(60, 'n'));
    service.WriteFile("/etc/tarvik/log/log.conf", strConfig);
    ASSERT_TRUE(service.Start());
    CTelnet telnet(service.ConsolePort());
    telnet.Send("quietharbor\r\n");
    EXPECT_THAT(telnet.ReadUntil("=2,\r\n"),
                EndsWith("\talpha=0," + std::string(50, 'n') + "=2,\r\n"));
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_THAT(service.Output(),
                MatchesRegex("Run app model.\nStart  ....\n(.*\n)*Start  8....\n"
                             "index=1 cannot load ListenPort or AppName.\nStart  81....\n"
                             "CommunicatThread Init\\(\\)\nStart  82....\n(.*\n)*End  ....\n"));
    EXPECT_THAT(service.Output(), HasSubstr("Start  83....\n"));
}

struct ModeCase {
    const char* szArguments;
    bool bDetached;
};

// Whatever the streams are that it is given, it takes none of their numbers for a pipe or a socket.
TEST(Start, DetachesUnlessAppIsTheOnlyArgument) {
    for (const auto& [szArguments, bDetached] :
         {ModeCase{"", true}, {" apps", true}, {" app app", true}, {" app <&- >&- 2>&-", false}}) {
        CService service(TARVIK_LOGD);
        service.WriteFile("/start", std::string("#!/bin/sh\nexec '" TARVIK_LOGD "'") + szArguments);
        fs::permissions(service.Path("/start"), fs::perms::all);
        service.SetProgram(service.Path("/start"));
        ASSERT_TRUE(service.Start(bDetached));
        const std::string strProcess = "/proc/" + std::to_string(service.Pid());
        EXPECT_EQ(fs::read_symlink(strProcess + "/cwd") == "/", bDetached);
        for (const char* szStream : {"/fd/0", "/fd/1", "/fd/2"}) {
            EXPECT_EQ(fs::read_symlink(strProcess + szStream), "/dev/null");
        }
        // no shell child inherits a pipe, a socket or the day's file
        for (const auto& entry : fs::directory_iterator(strProcess + "/fdinfo")) {
            std::ifstream info(entry.path());
            std::string strWord;
            while (info >> strWord && strWord != "flags:") {
            }
            if (info >> strWord && std::stoi(entry.path().filename().string()) > 2) {
                EXPECT_NE(std::stoul(strWord, nullptr, 8) & O_CLOEXEC, 0U) << entry.path();
            }
        }
        if (bDetached) {
            service.Signal(SIGHUP);  // of a terminal that it left behind
        }
        EXPECT_EQ(service.Stop(), 0);
        EXPECT_EQ(service.Output(), bDetached ? "Run deamon model.\n" : "");
    }
}

struct FailureCase {
    const char* szName;
    const char* szRemoved;  // the key that the configuration lacks, or a path of the root; or null
    int nStatus;
    const char* szTrace;
};

class StartFailure : public testing::TestWithParam<FailureCase> {};

TEST_P(StartFailure, EndsWithItsStatusAndTrace) {
    const FailureCase& c = GetParam();
    CService service(TARVIK_LOGD);
    if (c.szRemoved[0] == '/') {
        fs::remove_all(service.Path(c.szRemoved));
    } else {
        std::string strConfig = service.DefaultConfiguration();
        strConfig.insert(strConfig.find(c.szRemoved), "#");
        service.WriteFile("/etc/tarvik/log/log.conf", strConfig);
    }
    for (const bool bDetached : {false, true}) {
        fs::remove(service.Path("/var/log/logs.txt"));
        service.Launch(bDetached);
        ASSERT_NE(service.Pid(), 0);
        EXPECT_EQ(service.Wait(), c.nStatus);
        EXPECT_THAT(service.Output(), Not(HasSubstr("Close()")));
        EXPECT_TRUE(WaitUntil([&] { return service.Trace().ends_with(c.szTrace); }))
            << service.Trace();
        EXPECT_THAT(service.Trace(),
                    MatchesRegex("\\[....-..-.. ..:..:..\\] Mainservice.cpp [0-9]+ main\n(.*\n)*"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, StartFailure,
    testing::Values(FailureCase{"NoDirectoryForTheDay", "/log", 30, "failed to open log file!!!\n"},
                    FailureCase{"NoConfiguration", "/etc/tarvik/log/log.conf", 50,
                                "mainservice failed to load file log.conf\n"},
                    FailureCase{"NoSection", "[PORT_CONFIG]", 52,
                                "mainservice failed to load PortFromViewer  from file log.conf\n"},
                    FailureCase{"NoViewerPort", "PortFromViewer", 52,
                                "mainservice failed to load PortFromViewer  from file log.conf\n"},
                    FailureCase{"NoClientPort", "PortFromClient", 55,
                                "mainservice failed to load PortFromClient  from file log.conf\n"},
                    FailureCase{"NoAgentPort", "nSTPort", 56,
                                "mainservice failed to load nSTPort  from file log.conf.\n"},
                    FailureCase{"NoTimeout", "TimeoutSet", 53,
                                "mainservice failed to load TimeoutSet from file log.conf.\n"},
                    FailureCase{"NoCount", "PidCount", 60,
                                "mainservice failed to load PidCount from file log.conf\n"}),
    [](const auto& test) { return std::string(test.param.szName); });

TEST(Start, EndsInOrderWhenAPortIsTaken) {
    CService first(TARVIK_LOGD);
    CService second(TARVIK_LOGD);
    ASSERT_TRUE(first.Start());
    const auto Take = [&](const char* szKey, std::uint16_t wPort) {
        std::string strConfig = second.DefaultConfiguration();
        const std::size_t nValue = strConfig.find(szKey) + std::strlen(szKey) + 3;
        strConfig.replace(nValue, strConfig.find('\n', nValue) - nValue, std::to_string(wPort));
        second.WriteFile("/etc/tarvik/log/log.conf", strConfig);
        second.Launch();
        EXPECT_EQ(second.Wait(), 0);
    };
    Take("PortFromViewer", first.ConsolePort());
    EXPECT_THAT(second.Trace(), EndsWith("main\ninitialize communicatThread failed!\n"));
    Take("PortFromClient", first.RecordPort());
    EXPECT_THAT(second.Trace(), EndsWith("main\ninitialize recv thread failed!\n"));
    EXPECT_THAT(second.Output(), EndsWith("End  ....\n"));
}

// SIGTERM at any moment of the start: before the handler stands it ends the process, later it ends
// the service in order. Never does the service stay.
TEST(Stop, WorksAtAnyMomentOfTheStart) {
    CService service(TARVIK_LOGD);
    for (int nDelay = 0; nDelay < 40; ++nDelay) {
        service.Launch();
        std::this_thread::sleep_for(std::chrono::microseconds(nDelay * 250));
        const std::optional<int> nStatus = service.Stop();
        EXPECT_TRUE(nStatus == 0 || nStatus == 128 + SIGTERM) << nStatus.value_or(-1);
    }
}

// What the welcome reads may never come to an end; the service's way down does not wait for it.
TEST(Stop, WorksWhileTheConsoleWaitsForAFile) {
    CService service(TARVIK_LOGD);
    ASSERT_EQ(mkfifo(service.Path("/app/appversion").c_str(), 0600), 0);
    ASSERT_TRUE(service.Start());
    const CTelnet telnet(service.ConsolePort());
    ASSERT_TRUE(
        WaitUntil([&] { return service.Output().find("DoWelcome()....\n") != std::string::npos; }));
    EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
