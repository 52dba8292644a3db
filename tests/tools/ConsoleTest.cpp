// tarvik-log console against the real service.
#include "peers/LogClient.h"
#include "peers/Telnet.h"
#include "tools/ReadingTest.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

class ConsoleCommand : public ReadingTest {
protected:
    void SetUp() override {
        ReadingTest::SetUp();
        Write("/password", "quietharbor\n");
        Write("/wrong", "quietharbour\n");
        Write("/empty", "");
    }

    std::string To(const CService& service, const std::string& strRest) const {
        return fmt::format("console 127.0.0.1 --port {} {}", service.ConsolePort(), strRest);
    }
};

TEST_F(ConsoleCommand, ShowsWhatAClientSendsAndTellsItToStopAtTheEnd) {
    CService service(TARVIK_LOGD);
    std::string strConfig = service.DefaultConfiguration();
    const std::size_t nTimeout = strConfig.find("TimeoutSet");
    ASSERT_NE(nTimeout, std::string::npos);
    strConfig.replace(nTimeout, strConfig.find('\n', nTimeout) - nTimeout, "TimeoutSet = 2");
    service.WriteFile("/etc/tarvik/log/log.conf", strConfig);
    ASSERT_TRUE(service.Start(true));
    CLogClient beta(service.RecordPort(), service.ControlPort(1));
    const pid_t nPid = Start(
        To(service, "beta --value 7 --password-file password --grep link -i --record seen"), "out");

    // The service ends an idle connection, so the second round is one of a connection of its own.
    for (const char* szText : {"Link \x1b[31m\xff\xf4 up", "link [2] [3]"}) {
        const auto on = beta.ReceiveControl(10000);
        ASSERT_TRUE(on) << Read("/out.errors");
        EXPECT_EQ(on->dwParam2, 7U);
        beta.Send(MakeRecord(1, kRealTimeType, "nothing of it"));
        beta.Send(MakeRecord(1, kRealTimeType, szText));
        const std::size_t nLines = szText[0] == 'L' ? 1 : 2;
        ASSERT_TRUE(WaitUntil([&] { return Lines(Read("/out")).size() == nLines; }));
    }
    EXPECT_EQ(End(nPid, SIGINT), 0);
    const auto off = beta.ReceiveControl(10000);
    EXPECT_TRUE(off && off->dwParam2 == 0);

    const std::string strTime = "....-..-.. ..:..:..";
    const auto lines = Lines(Read("/out"));
    EXPECT_THAT(lines.at(0), MatchesRegex(strTime + "\\.... beta ." + strTime + ". .*"));
    EXPECT_THAT(lines.at(0), EndsWith("] Link .[31m\xEF\xBF\xBD\xEF\xBF\xBD up"));
    EXPECT_THAT(lines.at(1), EndsWith("] link [2] [3]"));
    EXPECT_EQ(Read("/seen"), Read("/out"));
    EXPECT_THAT(Read("/out.errors"), HasSubstr("connection lost; trying again"));
    EXPECT_EQ(service.Stop(), 0);
}

TEST_F(ConsoleCommand, ListsClientsAndSaysInOneLineWhyNot) {
    CService service(TARVIK_LOGD);
    std::string strConfig = service.DefaultConfiguration();
    strConfig.replace(strConfig.find("alpha"), 5, "al, pha");
    service.WriteFile("/etc/tarvik/log/log.conf", strConfig);
    ASSERT_TRUE(service.Start(true));
    Result result = Run(To(service, "--password-file password"));
    EXPECT_EQ(result.nStatus, 0) << result.strErrors;
    EXPECT_EQ(result.strOutput, "  0  al, pha\n  1  beta\n  2  gamma\n");

    struct Case {
        const char* szRest;
        int nStatus;
        const char* szReason;
    };
    for (const auto& [szRest, nStatus, szReason] : std::initializer_list<Case>{
             {"--password-file wrong", 1, "password refused"},
             {"delta --password-file password", 1, "no client 'delta'; there are: "},
             {"--password-file empty", 2, "'empty' has no line"},
             {"", 2, "no password on standard input"},
             {"beta --password-file password --grep '('", 2, "'('"},
             {"beta --password-file password --record /none/seen", 1, "/none/seen"},
             {"beta --value 0", 2, "'0' is no number from 1 to 65535"}}) {
        result = Run(To(service, szRest));
        EXPECT_EQ(result.nStatus, nStatus) << szRest;
        EXPECT_EQ(Lines(result.strErrors).size(), 1U) << result.strErrors;
        EXPECT_THAT(result.strErrors, HasSubstr(szReason));
    }

    CTelnet first(service.ConsolePort());
    first.LogIn();
    result = Run(To(service, "beta --password-file password"));
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, HasSubstr("somebody else is at the console"));
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_EQ(Run(To(service, "beta --password-file password")).nStatus, 1);
}

}  // namespace
