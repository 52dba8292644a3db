// What the console reads and writes, without a socket: set commands, relayed lines, the idle rule.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>

#include "console/IdleTime.h"
#include "console/RelayLine.h"
#include "console/SetCommand.h"

namespace {

TEST(SetCommand, TakesFieldsAsScanfWouldAndRefusesWhatDoesNotFit) {
    const struct {
        const char* szName;
        std::string strLine;
        const char* szTaken;  // number of fields, word, both numbers
    } cases[] = {
        {"every blank, more behind", " \t\v\f set\n2\r100 rest", "3 set 2 100"},
        {"signs", "SET +2 -7", "3 SET 2 -7"},
        {"decimal only, letters behind", "set 007 0x10", "3 set 7 0"},
        {"limits", "set 2147483647 -2147483648", "3 set 2147483647 -2147483648"},
        {"first too large", "set 2147483648 5", "1 set 0 0"},
        {"second wraps", "set 2 4294967301", "2 set 2 0"},
        {"no number", "set 2 +-5", "2 set 2 0"},
        {"second missing", "set 2", "2 set 2 0"},
        {"blanks only", " \t ", "0  0 0"},
        {"NUL behind", std::string("set 2 100\0x", 11), "3 set 2 100"},
        {"NUL inside", std::string("set\0 2 100", 10), "1 set 0 0"},
        {"NUL in front", std::string("\0set 2 100", 10), "0  0 0"},
    };
    for (const auto& c : cases) {
        const SetCommand got = ParseSetCommand(c.strLine);
        const std::string strTaken =
            fmt::format("{} {} {} {}", got.nFields, got.strWord, got.nNum1, got.nNum2);
        EXPECT_EQ(strTaken, c.szTaken) << c.szName;
    }
}

TEST(RelayLine, NamesStampsAndQuotesARecord) {
    LogRecord record{LOG_RECORD_MAGIC, 1, kRealTimeType, 2009, 3, 7, 14, 5, 9, 0, "link up %s%n"};
    char szName[kRelayNameBytes] = "webd";
    char szLine[kRelayLineBytes];
    const auto Line = [&] { return std::string(szLine, FormatRelayLine(szLine, szName, record)); };

    EXPECT_EQ(Line(), "[webd] [2009-03-07 14:05:09] [link up %s%n]\r\n");
    record.wYear = 7;
    EXPECT_EQ(Line(), "[webd] [   7-03-07 14:05:09] [link up %s%n]\r\n");
    record.wYear = 10000;
    EXPECT_EQ(Line(), "[webd] [10000-03-07 14:05:0] [link up %s%n]\r\n");

    record = {LOG_RECORD_MAGIC, 1, kRealTimeType, 9999, 0, 99, 90, 0, 10, 0, ""};
    EXPECT_EQ(Line(), "[webd] [9999-00-99 90:00:10] []\r\n");
    record.byHour = 100;
    EXPECT_EQ(Line(), "[webd] [9999-00-99 100:00:1] []\r\n");

    // Everything at its longest: fields without a NUL end where they end.
    record.wYear = 65535;
    record.byMonth = record.byDay = record.byHour = record.byMinute = record.bySecond = 255;
    std::memset(record.szText, 't', sizeof(record.szText));
    std::memset(szName, 'n', sizeof(szName));
    EXPECT_EQ(Line(), "[" + std::string(52, 'n') + "] [65535-255-255 255:2] [" +
                          std::string(280, 't') + "]\r\n");
    EXPECT_EQ(Line().size(), kRelayLineBytes);
}

TEST(IdleTime, CountsElapsedSecondsUnsigned) {
    constexpr std::int64_t kAfter2038 = 5000000000;
    EXPECT_FALSE(IsIdleTooLong(kAfter2038 + 119, kAfter2038, 120));
    EXPECT_TRUE(IsIdleTooLong(kAfter2038 + 120, kAfter2038, 120));
    EXPECT_TRUE(IsIdleTooLong(1000, 1000, 0));
    EXPECT_TRUE(IsIdleTooLong(999, 1000, 120));  // the clock was set back
    EXPECT_FALSE(IsIdleTooLong(kAfter2038, 0, -1));
    EXPECT_FALSE(IsIdleTooLong(999, 1000, -1));
}

}  // namespace
