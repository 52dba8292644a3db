// The trace file holds one record, whole, whoever writes and however long the one before was.
#include "core/Trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "peers/PrivateRoot.h"
#include "support/UniqueFd.h"

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

// Whoever opens the file while traces are written, long and short in turn, reads one of them.
TEST_F(TraceTest, IsOneRecordForWhoeverOpensIt) {
    const auto Write = [](char cText) {
        ::Trace(std::string(cText == 'l' ? 900 : 3, cText).c_str(), "Run");
    };
    Write('l');
    std::ifstream opened(m_strRoot + "/var/log/logs.txt");
    std::atomic<bool> bDone{false};
    std::thread writer([&] {
        for (int i = 0; i < 3000; ++i) {
            Write(i % 2 == 0 ? 's' : 'l');
        }
        bDone = true;
    });
    std::string strBad;
    while (!bDone) {
        const std::string strRead = Read("/var/log/logs.txt");
        const std::string strText = strRead.substr(strRead.find(" Run\n") + 5);
        if (strText != "sss" && strText != std::string(900, 'l')) {
            strBad = strRead;
        }
    }
    writer.join();
    EXPECT_EQ(strBad, "");
    const std::string strFirst{std::istreambuf_iterator<char>(opened), {}};
    EXPECT_THAT(strFirst, testing::EndsWith(std::string(900, 'l')));  // as it was opened
    EXPECT_FALSE(std::filesystem::exists(m_strRoot + "/var/log/logs.txt.new"));
}

TEST_F(TraceTest, KeepsWhatTheNameStandsFor) {
    const std::string strPath = m_strRoot + "/var/log/logs.txt";
    const auto Ends = [](const char* szText) { return testing::EndsWith(szText); };
    ::Trace("made\n");
    std::filesystem::permissions(strPath, std::filesystem::perms(0640));
    ::Trace("kept\n");
    EXPECT_EQ(std::filesystem::status(strPath).permissions(), std::filesystem::perms(0640));

    std::filesystem::remove(strPath);
    ASSERT_EQ(mkfifo(strPath.c_str(), 0600), 0);
    ::Trace("nobody reads\n");  // waits for nobody
    const CUniqueFd reader(open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ::Trace("one\n");
    ::Trace("two\n");
    char szRead[1000] = {};
    EXPECT_GT(read(reader.Get(), szRead, sizeof(szRead) - 1), 0);
    EXPECT_THAT(szRead, testing::AllOf(testing::HasSubstr("one\n"), Ends("two\n")));

    const std::string strElsewhere = m_strRoot + "/elsewhere";
    std::filesystem::remove(strPath);
    std::filesystem::create_symlink(strElsewhere, strPath);
    ::Trace("through a link\n");
    EXPECT_THAT(Read("/elsewhere"), Ends("through a link\n"));
    if (geteuid() == 0) {
        ASSERT_EQ(lchown(strPath.c_str(), 65534, 65534), 0);
        ::Trace("through another's link\n");
        EXPECT_THAT(Read("/elsewhere"), Ends("through a link\n"));
    }
}

}  // namespace
