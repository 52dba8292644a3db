// Texts from outside become shell words and numbers without a surprise.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "support/ParseInt.h"
#include "support/ShellCommand.h"

namespace {

// What a shell makes of worse names is seen where history files are removed.
TEST(QuoteForShell, LeavesPlainPathsAloneAndNothingElse) {
    EXPECT_EQ(QuoteForShell("/log/Az09_-.log"), "/log/Az09_-.log");
    EXPECT_EQ(QuoteForShell(""), "''");
    EXPECT_EQ(QuoteForShell("~"), "'~'");
}

TEST(ParseInt, ReadsLikeAtoiAndStopsAtTheRangeOfInt) {
    const std::map<std::string, std::int32_t> mapCases{{"  \t-17", -17},
                                                       {"010", 10},
                                                       {"2147483648", INT32_MAX},
                                                       {"-2147483649", INT32_MIN},
                                                       {"-99999999999999999999", INT32_MIN}};
    for (const auto& [strText, nValue] : mapCases) {
        EXPECT_EQ(ParseInt(strText), nValue) << strText;
    }
}

}  // namespace
