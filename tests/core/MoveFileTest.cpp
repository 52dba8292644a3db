// A file that moves to another file system is whole there, or it is where it was.
#include "support/MoveFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "peers/ReadWhole.h"
#include "peers/TempDir.h"

namespace {

namespace fs = std::filesystem;

class MoveFileTest : public testing::Test {
protected:
    void SetUp() override {
        struct stat here {};
        struct stat there {};
        if (stat(m_Here.Path().c_str(), &here) != 0 || stat(m_strThere.c_str(), &there) != 0 ||
            here.st_dev == there.st_dev) {
            GTEST_SKIP() << "there is no second file system";
        }
        std::ofstream(m_strFrom) << m_strContent;
        fs::permissions(m_strFrom, fs::perms(0640));
        fs::last_write_time(m_strFrom, m_tChanged);
    }
    void TearDown() override { fs::remove_all(m_strThere); }

    bool Move() { return MoveFile(m_strFrom, m_strTo, m_strPart); }

    const CTempDir m_Here;
    const std::string m_strThere = [] {
        std::string strPath = "/dev/shm/tarvik-XXXXXX";
        return std::string(mkdtemp(strPath.data()) != nullptr ? strPath : "/nowhere");
    }();
    const std::string m_strFrom = m_Here.Path() + "/file";
    const std::string m_strTo = m_strThere + "/file";
    const std::string m_strPart = m_strThere + "/part";
    const std::string m_strContent = std::string(200000, 'a') + "end";
    const fs::file_time_type m_tChanged = fs::file_time_type::clock::now() - std::chrono::hours(30);
};

TEST_F(MoveFileTest, ArrivesWholeWithItsRightsAndTime) {
    std::ofstream(m_strPart) << "of a move that was cut off";
    std::ofstream(m_strTo) << "older";
    ASSERT_TRUE(Move());
    EXPECT_EQ(ReadWhole(m_strTo), m_strContent);
    EXPECT_EQ(fs::status(m_strTo).permissions(), fs::perms(0640));
    EXPECT_EQ(fs::last_write_time(m_strTo), m_tChanged);
    EXPECT_FALSE(fs::exists(m_strFrom));
    EXPECT_FALSE(fs::exists(m_strPart));
}

TEST_F(MoveFileTest, ThatFailsChangesNothing) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{1000, before.rlim_max};
    const auto pfnBefore = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &tight);
    EXPECT_FALSE(Move());  // the disk is full in the middle
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, pfnBefore);
    EXPECT_EQ(ReadWhole(m_strFrom), m_strContent);
    EXPECT_FALSE(fs::exists(m_strTo));
    EXPECT_FALSE(fs::exists(m_strPart));
}

}  // namespace
