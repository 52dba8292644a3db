// What the console reads and writes, without a socket: set commands, relayed lines, the idle rule.
#include <gtest/gtest.h>

#include <cstring>

#include "console/IdleTime.h"
#include "console/RelayLine.h"
#include "console/SetCommand.h"

namespace {

TEST(SetCommand, TakesFieldsAsScanfWouldAndRefusesWhatDoesNotFit) {
    const struct {
        std::string strLine;
        int nFields;
        std::string strWord;
        std::int32_t nNum1;
        std::int32_t nNum2;
    } cases[] = {
        {"set 2 100", 3, "set", 2, 100},
        {" \t\v\f set\n2\r100 rest", 3, "set", 2, 100},
        {"set +2 -7", 3, "set", 2, -7},
        {"set 2+7", 3, "set", 2, 7},
        {"set 2 5abc", 3, "set", 2, 5},
        {"set 2 0x10", 3, "set", 2, 0},
        {"set 007 09", 3, "set", 7, 9},
        {"set 2147483647 -2147483648", 3, "set", 2147483647, -2147483647 - 1},
        {"set 2147483648 5", 1, "set", 0, 0},
        {"set 4294967298 5", 1, "set", 0, 0},
        {"set 2 4294967301", 2, "set", 2, 0},
        {"set 2 99999999999999999999", 2, "set", 2, 0},
        {"set 2 + 5", 2, "set", 2, 0},
        {"set 2 +-5", 2, "set", 2, 0},
        {"set 2", 2, "set", 2, 0},
        {"set,2 5", 2, "set,2", 5, 0},
        {"set", 1, "set", 0, 0},
        {"? ", 1, "?", 0, 0},
        {"%s%n %d", 1, "%s%n", 0, 0},
        {" \t ", 0, "", 0, 0},
        {std::string("set 2 100\0", 10), 0, "", 0, 0},
        {std::string("set\0 2 100", 10), 0, "", 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.strLine);
        const SetCommand command = ParseSetCommand(c.strLine);
        EXPECT_EQ(command.nFields, c.nFields);
        EXPECT_EQ(command.strWord, c.strWord);
        EXPECT_EQ(command.nNum1, c.nNum1);
        EXPECT_EQ(command.nNum2, c.nNum2);
    }
    EXPECT_TRUE(ParseSetCommand("SeT").IsSet());
    EXPECT_FALSE(ParseSetCommand("sets").IsSet());
    EXPECT_FALSE(ParseSetCommand("se").IsSet());
}

TEST(RelayLine, NamesStampsAndQuotesARecord) {
    LogRecord record{LOG_RECORD_MAGIC, 1, kRealTimeType, 2009, 3, 7, 14, 5, 9, 0, {}};
    char szName[kRelayNameBytes] = "webd";
    char szLine[kRelayLineBytes];
    const auto Line = [&] { return std::string(szLine, FormatRelayLine(szLine, szName, record)); };

    std::strcpy(record.szText, "link up %s%n");
    EXPECT_EQ(Line(), "[webd] [2009-03-07 14:05:09] [link up %s%n]\r\n");
    record.wYear = 7;
    EXPECT_EQ(Line(), "[webd] [   7-03-07 14:05:09] [link up %s%n]\r\n");
    record.wYear = 10000;
    EXPECT_EQ(Line(), "[webd] [10000-03-07 14:05:0] [link up %s%n]\r\n");

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
