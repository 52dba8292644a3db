// The trace file holds one record, whole, whoever writes and however long the one before was.
#include "core/Trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "peers/PrivateRoot.h"

namespace {

using TraceTest = PrivateRoot;

TEST_F(TraceTest, ReplacesTheRecordBeforeAndNeverMixesTwo) {
    const auto Content = [this] { return Read("/var/log/logs.txt"); };
    std::filesystem::remove(m_strRoot + "/var/log");
    errno = ENOENT;
    ::Trace("the directory is missing\n");  // no failure, and errno is the caller's
    EXPECT_EQ(errno, ENOENT);

    std::filesystem::create_directory(m_strRoot + "/var/log");
    const std::string strLong(700, 'l');
    ::Trace(strLong.c_str(), "Run");
    EXPECT_THAT(Content(), testing::EndsWith(" Run\n" + strLong));
    ::Trace("short\n");
    EXPECT_THAT(Content(), testing::MatchesRegex(
                               "\\[....-..-.. ..:..:..\\] TraceTest.cpp [0-9]+ TestBody\nshort\n"));

    std::vector<std::thread> threads;
    for (const char cText : {'a', 'b', 'c'}) {
        threads.emplace_back([cText] {
            for (std::size_t i = 0; i < 300; ++i) {
                ::Trace(std::string(i, cText).c_str(), "Run");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string strText = Content().substr(Content().find(" Run\n") + 5);
    EXPECT_EQ(strText, std::string(299, strText.at(0)));
}

}  // namespace
