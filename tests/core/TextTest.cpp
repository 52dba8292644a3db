// Texts from outside become shell words and numbers without a surprise.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/ServiceSettings.h"
#include "core/ShellCommand.h"

namespace {

TEST(QuoteForShell, LeavesPlainPathsAloneAndDisarmsTheRest) {
    const struct {
        const char* szPath;
        const char* szWord;
    } kCases[] = {
        {"/log/20240131.log", "/log/20240131.log"},
        {"Az09_-.", "Az09_-."},
        {"", "''"},
        {"a b", "'a b'"},
        {"$(reboot)", "'$(reboot)'"},
        {"a;b", "'a;b'"},
        {"it's", "'it'\\''s'"},
        {"'", "''\\'''"},
        {"a\nb", "'a\nb'"},
        {"\xC3\xA4", "'\xC3\xA4'"},
        {"~", "'~'"},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(QuoteForShell(c.szPath), c.szWord);
    }
}

// The shell itself is the judge: the word must come back as the very text.
TEST(QuoteForShell, MakesOneWordThatTheShellGivesBack) {
    for (const std::string strText :
         {"", "plain", "it's; $HOME `id` \\ \"x\" *", "two\nlines", "-n'"}) {
        const std::string strTest = "test " + QuoteForShell(strText) + " = \"$WANTED\"";
        ASSERT_EQ(setenv("WANTED", strText.c_str(), 1), 0);
        EXPECT_EQ(std::system(strTest.c_str()), 0) << strTest;
    }
    unsetenv("WANTED");
}

TEST(ParseInt, ReadsLikeAtoiAndStopsAtTheRangeOfInt) {
    const struct {
        const char* szText;
        std::int32_t nValue;
    } kCases[] = {
        {"0", 0},
        {"4321", 4321},
        {"  \t-17", -17},
        {"+8", 8},
        {"12ab", 12},
        {"ab12", 0},
        {"", 0},
        {"- 5", 0},
        {"010", 10},
        {"0x10", 0},
        {"2147483647", INT32_MAX},
        {"2147483648", INT32_MAX},
        {"-2147483648", INT32_MIN},
        {"-2147483649", INT32_MIN},
        {"99999999999999999999999", INT32_MAX},
        {"-99999999999999999999999", INT32_MIN},
    };
    for (const auto& c : kCases) {
        EXPECT_EQ(ParseInt(c.szText), c.nValue) << '"' << c.szText << '"';
    }
}

}  // namespace
