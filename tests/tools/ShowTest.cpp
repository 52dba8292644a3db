// tarvik-log show and stats: what is picked, the times that people type, every form to the byte,
// and what is made of damaged files and of wrong use.
#include <unistd.h>

#include <array>
#include <ctime>
#include <nlohmann/json.hpp>

#include "reading/RecordTime.h"
#include "tools/ReadingTest.h"

namespace {

using testing::HasSubstr;

class Show : public ReadingTest {
protected:
    void WriteFour() const {
        Write("/hislog/20261121.log", DayBytes({StampedRecord(0, 0, 1, "Link up")}));
        Write("/log/20261122.log",
              DayBytes({StampedRecord(1, 2, 2, "link down"), StampedRecord(2, 1, 3, "hot: 71 C"),
                        StampedRecord(-7, 3, 4, "tick")}));
    }
};

TEST_F(Show, PicksWhatIsWanted) {
    WriteFour();
    const std::pair<const char*, const char*> cases[] = {
        {"", "1234"},
        {"-n 4 --reverse", "4321"},
        {"-n 0", ""},
        {"-n 1 --client beta", "2"},
        {"-n 9 --type info", "1"},
        {"log/20261122.log", "234"},
        {"--client 0 hislog/20261121.log log/20261122.log", "1"},
        {"--client alpha --client=-7", "14"},
        {"--client 'my, app'", "3"},
        {"--type warning --type 3", "34"},
        {"--type error --client 0", ""},
        {"--grep '^[Ll]ink (up|down)$'", "12"},
        {"-i --grep LINK", "12"},
        {"--since '2026-11-22 14:05:02' --until '2026-11-22 14:05:03'", "23"},
    };
    for (const auto& [szArguments, szSeconds] : cases) {
        const Result result = Run(std::string("show ") + szArguments);
        std::string strSeconds;
        for (const std::string& strLine : Lines(result.strOutput)) {
            strSeconds += strLine.at(18);
        }
        EXPECT_EQ(strSeconds, szSeconds) << szArguments;
        EXPECT_EQ(result.nStatus, 0) << szArguments << result.strErrors;
    }
}

TEST_F(Show, UnderstandsTimesAsPeopleTypeThem) {
    // Sunday, 29 March 2026, 12:30:15 summer time, which began at 2:00 that day
    constexpr std::time_t kNow = 1774780215;
    const std::pair<const char*, TimeStamp> cases[] = {
        {"now", 20260329123015},
        {"today", 20260329000000},
        {" yesterday 23:59 ", 20260328235900},
        {"2026-11-22", 20261122000000},
        {"2026-11-22T14:00:05", 20261122140005},
        {"2024-02-29 23:59", 20240229235900},
        {"00:00:01", 20260329000001},
        {"1 s ago", 20260329123014},
        {"10min ago", 20260329122015},
        {"12 hours ago", 20260328233015},  // over the hour that was left out
        {"2 d ago", 20260327113015},
        {"1 week ago", 20260322113015},
    };
    for (const auto& [szText, nMeant] : cases) {
        EXPECT_EQ(ParseTime(szText, kNow), nMeant) << szText;
    }
    for (const char* szText :
         {"", "ago", "min ago", "-5 min ago", "5 fortnights ago", "99999999999999999999 s ago",
          "2026-02-29", "2026-13-01", "2026-11-22x14:00", "2026-11-22 24:00", "14:60", "14:00:60",
          "14:00:05:06", "today14:00", "now 14:00"}) {
        EXPECT_FALSE(ParseTime(szText, kNow)) << szText;
    }
}

TEST_F(Show, WritesEveryFormToTheByte) {
    std::array<char, 256> szHost{};
    gethostname(szHost.data(), szHost.size() - 1);
    const std::string strHost = szHost.data();
    LogRecord summer = StampedRecord(5, -1, 9, "ok");
    summer.byMonth = 7;
    Write("/log/20261122.log",
          DayBytes({StampedRecord(2, 2, 9, "say \"hi\",\n\xC3\xA4\xFF\x1B[m"), summer}));
    const std::string strText = "say \"hi\",.\xC3\xA4\xEF\xBF\xBD.[m";
    const std::pair<const char*, std::string> cases[] = {
        {"short", "2026-11-22 14:05:09 my, app error   " + strText +
                      "\n2026-07-22 14:05:09 client 5 unknown ok\n"},
        {"full", "20261122.log:1 2026-11-22 14:05:09 my, app[2] error[2] " + strText +
                     "\n20261122.log:2 2026-07-22 14:05:09 client 5[5] unknown[-1] ok\n"},
        {"json", R"({"time":"2026-11-22T14:05:09","client":2,"name":"my, app","type":2,)"
                 R"("severity":"error","text":"say \"hi\",\n)"
                 "\xC3\xA4\xEF\xBF\xBD"
                 R"(\u001b[m"})"
                 "\n"
                 R"({"time":"2026-07-22T14:05:09","client":5,"name":"client 5","type":-1,)"
                 R"("severity":"unknown","text":"ok"})"
                 "\n"},
        {"csv",
         "time,client,name,type,severity,text\r\n"
         "2026-11-22T14:05:09,2,\"my, app\",2,error,\"say \"\"hi\"\",\n\xC3\xA4\xEF\xBF\xBD\x1B[m\""
         "\r\n2026-07-22T14:05:09,5,client 5,-1,unknown,ok\r\n"},
        {"syslog", "<131>1 2026-11-22T14:05:09+01:00 " + strHost + " my,_app - - - " + strText +
                       "\n<133>1 2026-07-22T14:05:09+02:00 " + strHost + " client_5 - - - ok\n"},
    };
    for (const auto& [szForm, strOutput] : cases) {
        EXPECT_EQ(Run(std::string("show -o ") + szForm).strOutput, strOutput);
    }
    summer.byDay = 32;  // a time that never was
    Write("/day", DayBytes({summer}));
    EXPECT_EQ(Run("show -o syslog day").strOutput, "<133>1 - " + strHost + " client_5 - - - ok\n");
}

TEST_F(Show, ReadsADamagedFileAsFarAsItGoes) {
    const std::string strDay = DayBytes({StampedRecord(0, 0, 1, "a"), StampedRecord(0, 0, 2, "b"),
                                         StampedRecord(0, 0, 3, "c"), StampedRecord(0, 0, 4, "d")});
    const auto With = [&strDay](std::size_t nOffset, const char* szBytes) {
        return std::string(strDay).replace(nOffset, std::strlen(szBytes), szBytes);
    };
    const struct {
        std::string strBytes;
        const char* szTexts;  // of the records that are shown
        const char* szSaid;
    } cases[] = {
        {strDay, "abcd", ""},
        {strDay.substr(0, 1350), "abc", "the last slot is cut short, 150 of 300 bytes"},
        {strDay.substr(0, 300), "", "4 records should be there, the file ends after 0"},
        {strDay.substr(0, 299), "", "the header is cut short, 299 of 300 bytes"},
        {With(600, "x").replace(900, 1, "x"), "ad", "2 slots without a record: 2 to 3"},
        {With(0, "x"), "abcd", "the header has no magic"},
        {With(4, "\xFF\xFF\xFF\xFF"), "abcd", "10238 records should be there"},
        {strDay + "torn", "abcd", "the last slot is cut short, 4 of 300 bytes"},
    };
    for (const auto& c : cases) {
        Write("/day", c.strBytes);
        const Result result = Run("show day");
        std::string strTexts;
        for (const std::string& strLine : Lines(result.strOutput)) {
            strTexts += strLine.back();
        }
        EXPECT_EQ(strTexts, c.szTexts) << c.szSaid;
        EXPECT_EQ(result.nStatus, *c.szSaid == '\0' ? 0 : 1) << c.szSaid;
        EXPECT_THAT(result.strErrors, HasSubstr(c.szSaid));
    }
    const Result result = Run("show missing . day");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(Lines(result.strOutput).size(), 4U);
    EXPECT_THAT(result.strErrors, HasSubstr("missing: No such file or directory\n"));
    EXPECT_THAT(result.strErrors, HasSubstr(".: is no regular file\n"));
}

TEST_F(Show, LikeEverySubcommandAnswersWrongUseWithOneLineAndStatusTwo) {
    const std::pair<std::string, std::vector<const char*>> kCases[] = {
        {"", {"nothing", "stats -o csv", "stats --live --since today"}},
        {"show",
         {"--client nobody", "--client 100", "--type 4", "--since soon", "--until ''", "--grep '('",
          "-n -1", "-n ''", "--config /nowhere", "-f --reverse", "-f day"}},
        {"send --port 9", {"x", "--client nobody x", "--client -1 x", "--client 0 --realtime x"}},
        {"receive", {"", "x", "--port 99999"}},
        {"receive --port 1",
         {"--get a/b", "--client 1", "--sessions 2", "--set-language latin", "--listen here",
          "--max-size -1", "--reboot", "--reboot --live --yes", "--live --type 4"}},
        {"agent",
         {"--receiver 1.2.3.4:0", "--requests 3", "--node 256", "--seconds nan",
          "--seconds 1e300"}},
        {"fetch", {"--days none", "--wait 0", "--live"}},
    };
    for (const auto& [strSubcommand, listArguments] : kCases) {
        for (const char* szArguments : listArguments) {
            SCOPED_TRACE(strSubcommand + " " + szArguments);
            const Result result = Run(strSubcommand + " " + szArguments);
            EXPECT_EQ(result.nStatus, 2);
            EXPECT_EQ(Lines(result.strErrors).size(), 1U) << result.strErrors;
            EXPECT_LT(result.strErrors.size(), 200U);
            EXPECT_THAT(result.strErrors, testing::StartsWith("tarvik-log"));
            EXPECT_EQ(result.strOutput, "");
        }
    }
}

TEST_F(Show, IsColouredOnATerminalOnly) {
    WriteFour();
    const std::string strTerminal =
        "true; TERM=xterm script -qec \"'" TARVIK_LOG "' show\" /dev/null";
    EXPECT_THAT(Run(strTerminal).strOutput, HasSubstr("\x1B[31merror   link down\x1B[0m"));
    setenv("NO_COLOR", "1", 1);
    EXPECT_THAT(Run(strTerminal).strOutput,
                testing::AllOf(HasSubstr("link down"), testing::Not(HasSubstr("\x1B"))));
    unsetenv("NO_COLOR");
    EXPECT_EQ(Run("show").strOutput.find('\x1B'), std::string::npos);
}

// It ends quietly with its reader. A closed descriptor must not become that of a file or a socket;
// one that takes nothing must not keep the records back.
TEST_F(Show, RunsWithoutStandardDescriptors) {
    Write("/log/20261122.log",
          DayBytes(std::vector<LogRecord>(5000, StampedRecord(0, 0, 1, "more than a pipe holds"))));
    Result result = Run("show | head -n 1");
    EXPECT_EQ(Lines(result.strOutput).size(), 1U);
    EXPECT_EQ(result.strErrors, "");
    WriteFour();
    EXPECT_EQ(Run("show >&-").nStatus, 1);
    EXPECT_EQ(Run("--help >/dev/full").nStatus, 1);
    for (const char* szArguments :
         {"show missing log/20261122.log 2>&-", "show missing log/20261122.log 2>/dev/full"}) {
        result = Run(szArguments);
        EXPECT_EQ(Lines(result.strOutput).size(), 3U) << szArguments;
        EXPECT_EQ(result.nStatus, 1) << szArguments;
    }
    result = Run("send --client 0 --port 9 <&-");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, HasSubstr("standard input: "));
}

TEST_F(Show, IsCountedByStats) {
    WriteFour();
    const auto json = nlohmann::json::parse(Run("stats -o json --type 2 --type info").strOutput);
    EXPECT_EQ(json["records"], 2);
    EXPECT_EQ(json["first"], "2026-11-22T14:05:01");
    EXPECT_EQ(json["last"], "2026-11-22T14:05:02");
    EXPECT_EQ(json["clients"][1].dump(), R"({"client":1,"name":"beta","records":1})");
    EXPECT_EQ(json["types"][1].dump(), R"({"records":1,"severity":"error","type":2})");
    EXPECT_EQ(json["hours"][14]["records"], 2);
    EXPECT_THAT(Run("stats").strOutput,
                testing::AllOf(HasSubstr("4 records from 2026-11-22 14:05:01 to "),
                               HasSubstr("  client -7  1  " + std::string(64, '#') + "\n"),
                               HasSubstr("  13  0\n  14  4  " + std::string(71, '#') + "\n")));
}

}  // namespace
