// Texts from outside become shell words and numbers without a surprise.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "core/ServiceSettings.h"
#include "core/ShellCommand.h"

namespace {

// The shell itself is the judge: the word must come back as the very text.
TEST(QuoteForShell, LeavesPlainPathsAloneAndMakesOneWordOfTheRest) {
    EXPECT_EQ(QuoteForShell("/log/Az09_-.log"), "/log/Az09_-.log");
    for (const char* szText : {"", "a b", "it's; $HOME `id` \\ \"x\" *", "two\nlines", "~", "'"}) {
        const std::string strTest = "test " + QuoteForShell(szText) + " = \"$WANTED\"";
        ASSERT_EQ(setenv("WANTED", szText, 1), 0);
        EXPECT_EQ(std::system(strTest.c_str()), 0) << strTest;
    }
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
