// tarvik-log show: the order of the ring, what is picked, every form to the byte, and what it makes
// of damaged files and of wrong use.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

#include "core/Lock.h"
#include "logstore/LogFile.h"
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

// Written by the service's own class, looked at before, at and behind the end of the ring.
TEST_F(Show, GivesTheRingInTheOrderWritten) {
    CLogFile file;
    const CLockGuard guard(file);
    ASSERT_EQ(file.OpenLogFile(), 0);
    std::uint32_t nWritten = 0;
    for (const std::uint32_t nTotal : {0U, 10238U, 10239U, 20477U}) {
        while (nWritten < nTotal) {
            ++nWritten;
            ASSERT_EQ(file.WriteRecord(StampedRecord(0, 0, 1, std::to_string(nWritten))), 0);
        }
        std::vector<std::string> lines;
        for (std::uint32_t i = nTotal - std::min(nTotal, kLogFileSlots) + 1; i <= nTotal; ++i) {
            lines.push_back("2026-11-22 14:05:01 alpha   info    " + std::to_string(i));
        }
        EXPECT_TRUE(Lines(Run("show").strOutput) == lines) << nTotal;
        lines.erase(lines.begin(), lines.end() - std::min<std::ptrdiff_t>(nTotal, 300));
        EXPECT_TRUE(Lines(Run("show -n 300").strOutput) == lines) << nTotal;
        std::reverse(lines.begin(), lines.end());
        EXPECT_TRUE(Lines(Run("show -n 300 --reverse").strOutput) == lines) << nTotal;
    }
}

TEST_F(Show, PicksWhatIsWanted) {
    WriteFour();
    const std::pair<const char*, const char*> cases[] = {
        {"", "1234"},
        {"--reverse", "4321"},
        {"-n 2", "34"},
        {"-n 2 --reverse", "43"},
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
        {"--grep link", "2"},
        {"-i --grep LINK", "12"},
        {"--since '2026-11-22 14:05:02' --until '2026-11-22 14:05:03'", "23"},
        {"--until 2026-11-22", ""},
        {"--since 2026-11-22", "1234"},
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

TEST_F(Show, WritesEveryFormToTheByte) {
    std::array<char, 256> szHost{};
    gethostname(szHost.data(), szHost.size() - 1);
    const std::string strHost = szHost.data();
    LogRecord summer = StampedRecord(5, -1, 9, "ok");
    summer.byMonth = 7;
    LogRecord never = summer;
    never.byDay = 32;
    Write("/log/20261122.log",
          DayBytes({StampedRecord(2, 2, 9, "say \"hi\",\n\xC3\xA4\xFF\x1B[m"), summer, never}));
    const std::string strText = "say \"hi\",.\xC3\xA4\xEF\xBF\xBD.[m";
    const std::pair<const char*, std::string> cases[] = {
        {"short", "2026-11-22 14:05:09 my, app error   " + strText +
                      "\n2026-07-22 14:05:09 client 5 unknown ok\n"
                      "2026-07-32 14:05:09 client 5 unknown ok\n"},
        {"full", "20261122.log:1 2026-11-22 14:05:09 my, app[2] error[2] " + strText +
                     "\n20261122.log:2 2026-07-22 14:05:09 client 5[5] unknown[-1] ok\n"
                     "20261122.log:3 2026-07-32 14:05:09 client 5[5] unknown[-1] ok\n"},
        {"json", R"({"time":"2026-11-22T14:05:09","client":2,"name":"my, app","type":2,)"
                 R"("severity":"error","text":"say \"hi\",\n)"
                 "\xC3\xA4\xEF\xBF\xBD"
                 R"(\u001b[m"})"
                 "\n"
                 R"({"time":"2026-07-22T14:05:09","client":5,"name":"client 5","type":-1,)"
                 R"("severity":"unknown","text":"ok"})"
                 "\n"
                 R"({"time":"2026-07-32T14:05:09","client":5,"name":"client 5","type":-1,)"
                 R"("severity":"unknown","text":"ok"})"
                 "\n"},
        {"csv",
         "time,client,name,type,severity,text\r\n"
         "2026-11-22T14:05:09,2,\"my, app\",2,error,\"say \"\"hi\"\",\n\xC3\xA4\xEF\xBF\xBD\x1B[m\""
         "\r\n2026-07-22T14:05:09,5,client 5,-1,unknown,ok\r\n"
         "2026-07-32T14:05:09,5,client 5,-1,unknown,ok\r\n"},
        {"syslog", "<131>1 2026-11-22T14:05:09+01:00 " + strHost + " my,_app - - - " + strText +
                       "\n<133>1 2026-07-22T14:05:09+02:00 " + strHost +
                       " client_5 - - - ok\n<133>1 - " + strHost + " client_5 - - - ok\n"},
    };
    for (const auto& [szForm, strOutput] : cases) {
        EXPECT_EQ(Run(std::string("show -o ") + szForm).strOutput, strOutput);
    }
}

TEST_F(Show, ReadsADamagedFileAsFarAsItGoes) {
    std::string strDay = DayBytes({StampedRecord(0, 0, 1, "a"), StampedRecord(0, 0, 2, "b"),
                                   StampedRecord(0, 0, 3, "c"), StampedRecord(0, 0, 4, "d")});
    const auto With = [&strDay](std::size_t nOffset, const char* szBytes) {
        return std::string(strDay).replace(nOffset, std::strlen(szBytes), szBytes);
    };
    struct DamageCase {
        std::string strBytes;
        const char* szTexts;  // of the records that are shown
        const char* szSaid;
    };
    const DamageCase cases[] = {
        {strDay, "abcd", ""},
        {strDay.substr(0, 1350), "abc", "the last slot is cut short, 150 of 300 bytes"},
        {strDay.substr(0, 900), "ab", "4 records should be there, the file ends after 2"},
        {strDay.substr(0, 300), "", "4 records should be there, the file ends after 0"},
        {strDay.substr(0, 299), "", "the header is cut short, 299 of 300 bytes"},
        {"", "", "the header is cut short, 0 of 300 bytes"},
        {With(600, "x"), "acd", "1 slot without a record: 2"},
        {With(600, "x").replace(900, 1, "x"), "ad", "2 slots without a record: 2 to 3"},
        {With(0, "x"), "abcd", "the header has no magic"},
        {With(4, "\xFF\xFF\xFF\xFF"), "abcd", "10238 records should be there"},
        {strDay + "torn", "abcd", "the last slot is cut short, 4 of 300 bytes"},
    };
    for (const DamageCase& c : cases) {
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
        {"", {"nothing", "stats -o csv", "stats --client nobody", "stats --live --since today"}},
        {"show",
         {"--client nobody", "--client 100", "--type 4", "--type loud", "--since soon",
          "--until ''", "--grep '('", "-n many", "-n -1", "-n ''", "-o xml", "--config /nowhere",
          "-f --reverse", "-f day", "--nothing"}},
        {"send --port 9",
         {"x", "--client nobody x", "--client 100 x", "--client -1 x", "--client 0 --type 4 x",
          "--client 0 --realtime x"}},
        {"receive", {"", "x", "--port 99999", "--port ''"}},
        {"receive --port 1",
         {"--days 0", "--get a/b", "--client 1", "--sessions 2", "--set-language latin",
          "--listen here", "--max-size much", "--max-size -1", "--reboot", "--reboot --live --yes",
          "--live --client nobody", "--live --type 4", "--live -o csv"}},
        {"agent",
         {"--receiver 1.2.3.4", "--receiver 1.2.3.4:0", "--requests 3", "--node 256",
          "--source here", "--seconds 0", "--seconds nan", "--seconds 1e300"}},
        {"fetch", {"--days none", "--wait 0", "--port 0", "--live"}},
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
    const std::string strRed = "\x1B[31merror   link down\x1B[0m";
    const std::string strTerminal = "true; TERM=xterm script -qec '" TARVIK_LOG " show' /dev/null";
    EXPECT_THAT(Run(strTerminal).strOutput, HasSubstr(strRed));
    setenv("NO_COLOR", "1", 1);
    EXPECT_THAT(Run(strTerminal).strOutput,
                testing::AllOf(HasSubstr("link down"), testing::Not(HasSubstr("\x1B"))));
    unsetenv("NO_COLOR");
    EXPECT_EQ(Run("show").strOutput.find('\x1B'), std::string::npos);
}

TEST_F(Show, EndsQuietlyWithItsReader) {
    Write("/log/20261122.log",
          DayBytes(std::vector<LogRecord>(5000, StampedRecord(0, 0, 1, "more than a pipe holds"))));
    const Result result = Run("show | head -n 1");
    EXPECT_EQ(Lines(result.strOutput).size(), 1U);
    EXPECT_EQ(result.strErrors, "");
}

// A closed descriptor must not become that of a file or a socket; one that takes nothing must not
// keep the records back.
TEST_F(Show, RunsWithoutStandardDescriptors) {
    WriteFour();
    EXPECT_EQ(Run("show >&-").nStatus, 1);
    EXPECT_EQ(Run("--help >/dev/full").nStatus, 1);
    for (const char* szArguments :
         {"show missing log/20261122.log 2>&-", "show missing log/20261122.log 2>/dev/full"}) {
        const Result result = Run(szArguments);
        EXPECT_EQ(Lines(result.strOutput).size(), 3U) << szArguments;
        EXPECT_EQ(result.nStatus, 1) << szArguments;
    }
    const Result result = Run("send --client 0 --port 9 <&-");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, HasSubstr("standard input: "));
}

TEST_F(Show, IsCountedByStats) {
    WriteFour();
    const auto json = nlohmann::json::parse(Run("stats -o json --type 2 --type info").strOutput);
    EXPECT_EQ(json["records"], 2);
    EXPECT_EQ(json["first"], "2026-11-22T14:05:01");
    EXPECT_EQ(json["last"], "2026-11-22T14:05:02");
    EXPECT_EQ(
        json["clients"].dump(),
        R"([{"client":0,"name":"alpha","records":1},{"client":1,"name":"beta","records":1}])");
    EXPECT_EQ(
        json["types"].dump(),
        R"([{"records":1,"severity":"info","type":0},{"records":1,"severity":"error","type":2}])");
    EXPECT_EQ(json["hours"][14]["records"], 2);
    EXPECT_EQ(json["hours"].size(), 24U);
    const std::string strBars = Run("stats").strOutput;
    EXPECT_THAT(strBars, HasSubstr("4 records from 2026-11-22 14:05:01 to 2026-11-22 14:05:04\n"));
    EXPECT_THAT(strBars, HasSubstr("  client -7  1  " + std::string(64, '#') + "\n"));
    EXPECT_THAT(strBars, HasSubstr("  13  0\n  14  4  " + std::string(71, '#') + "\n"));
}

}  // namespace
