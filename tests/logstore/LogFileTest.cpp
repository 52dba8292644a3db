// The day's file: its layout, its ring, what it refuses to open, and its way into the history.
#include "logstore/LogFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "peers/PrivateRoot.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

// Time zones one day apart, so that changing from the first to the second is a change of date.
constexpr const char* kYesterday = "DAY+12";
constexpr const char* kToday = "DAY-12";

void SetZone(const char* szZone) {
    setenv("TZ", szZone, 1);
    tzset();
}

class LogFileTest : public PrivateRoot {
protected:
    void SetUp() override {
        PrivateRoot::SetUp();
        SetZone(kYesterday);
    }

    static int Open(CLogFile& file) {
        const CLockGuard guard(file);
        return file.OpenLogFile();
    }
    static int WriteOne(CLogFile& file, std::int32_t nIndex = 0) {
        const CLockGuard guard(file);
        LogRecord record{};
        record.nIndex = nIndex;
        return file.WriteRecord(record);
    }
    std::vector<std::string> List(const char* szDirectory) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_strRoot + szDirectory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
};

TEST_F(LogFileTest, StartsWithAnEmptyHeaderThatAnyUserMayChange) {
    umask(077);
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    std::string strHeader(300, '\0');
    strHeader.replace(0, 4, "\x44\x19\x58\x26");
    EXPECT_EQ(ReadWhole(file.GetFileName()), strHeader);
    struct stat status {};
    ASSERT_EQ(stat(file.GetFileName().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0666U);
}

TEST_F(LogFileTest, GoesRoundInItsRingAndGoesOnAfterReopening) {
    CLogFile file;
    std::vector<std::int32_t> slots;  // the numbers that they must hold
    const auto Write = [&](std::int32_t nFirst, std::int32_t nLast) {
        ASSERT_EQ(Open(file), 0);  // the counter comes back from the file
        for (std::int32_t nNumber = nFirst; nNumber <= nLast; ++nNumber) {
            ASSERT_EQ(WriteOne(file, nNumber), 0);
            slots.resize(std::min<std::size_t>(slots.size() + 1, 10238));
            slots[static_cast<std::size_t>(nNumber - 1) % 10238] = nNumber;
        }
    };
    const auto ExpectFile = [&](std::uint32_t dwCount) {
        const std::string strFile = ReadWhole(file.GetFileName());
        ASSERT_EQ(strFile.size(), (slots.size() + 1) * 300);
        EXPECT_EQ(std::memcmp(&strFile[4], &dwCount, 4), 0);
        for (std::size_t i = 0; i < slots.size(); ++i) {
            ASSERT_EQ(std::memcmp(&strFile[(i + 1) * 300 + 4], &slots[i], 4), 0) << i;
        }
    };
    Write(1, 10237);
    Write(10238, 10238);
    ExpectFile(10238);
    Write(10239, 10240);
    ExpectFile(10241);
}

// Around the end of the ring, and where a file may not grow in the middle of a batch: the slots
// that fail are skipped, the others are stored, and the header counts the last of them.
TEST_F(LogFileTest, BatchesLeaveWhatSingleRecordsLeave) {
    constexpr std::uint32_t kRecords = 12000;
    const auto FileOf = [](std::size_t nMostAtOnce) {
        std::mt19937 rng(16);
        CLogFile file;
        EXPECT_EQ(Open(file), 0);
        std::vector<LogRecord> records(kRecords);
        for (std::uint32_t i = 0; i < kRecords; ++i) {
            records[i].nIndex = static_cast<std::int32_t>(i);
        }
        const CLockGuard guard(file);
        for (std::size_t nAt = 0; nAt < kRecords;) {
            const std::size_t nMost = std::min<std::size_t>(nMostAtOnce, kRecords - nAt);
            const std::size_t nNow = 1 + rng() % nMost;
            file.WriteRecords(&records[nAt], nNow);
            nAt += nNow;
        }
        std::string strBytes = ReadWhole(file.GetFileName());
        fs::remove(file.GetFileName());
        return strBytes;
    };
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &usual), 0);
    for (const rlim_t nMost : {usual.rlim_cur, rlim_t{3000 * 300 + 100}}) {
        const rlimit limit{nMost, usual.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        const std::string strSingle = FileOf(1);
        EXPECT_TRUE(FileOf(kMostAheadOfHeader) == strSingle) << "limit " << nMost;
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &usual), 0);
    }
}

TEST_F(LogFileTest, RefusesWhatIsNoDaysFileAndLeavesItAlone) {
    const std::string strWrongMagic = "\x45\x19\x58\x26" + std::string(596, 'x');
    const std::string strShort = "\x44\x19\x58\x26" + std::string(146, 'x');
    for (const std::string& strContent : {strWrongMagic, strShort, std::string(1, '\x44')}) {
        CLogFile file;
        std::ofstream(CLogFile::GetTodayLogFileName(), std::ios::binary) << strContent;
        EXPECT_EQ(Open(file), 15);
        EXPECT_THAT(Trace(), testing::HasSubstr("OpenLogFile\nfailed to read file header!!!\n"));
        EXPECT_EQ(WriteOne(file), 5);
        EXPECT_EQ(ReadWhole(file.GetFileName()), strContent);
    }
    // What is no file of its own is neither followed nor waited for, and nobody's mode changes.
    const std::string strName = CLogFile::GetTodayLogFileName();
    const std::string strVictim = m_strRoot + "/victim";
    Write("/victim", std::string(300, '\0'));
    fs::permissions(strVictim, fs::perms::owner_read);
    const std::function<void()> lures[] = {
        [&] { fs::create_symlink(strVictim, strName); },
        [&] { ASSERT_EQ(mkfifo(strName.c_str(), 0666), 0); },
        [&] { fs::remove_all(m_strRoot + "/log"); },
    };
    for (const auto& fnLure : lures) {
        fs::remove(strName);
        fnLure();
        CLogFile file;
        EXPECT_EQ(Open(file), 10);
        EXPECT_THAT(Trace(), testing::HasSubstr("OpenLogFile\nfailed to open file \n"));
        EXPECT_EQ(WriteOne(file), 5);
        EXPECT_EQ(fs::status(strVictim).permissions(), fs::perms::owner_read);
    }
}

// Only a header that was right is carried into the next new file.
TEST_F(LogFileTest, CarriesReservedBytesOnFromGoodHeadersOnly) {
    const std::string strGood = std::string("\x44\x19\x58\x26\7\0\0\0", 8) + std::string(292, 'g');
    std::ofstream(CLogFile::GetTodayLogFileName(), std::ios::binary) << strGood;
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    const std::string strBad = std::string("\x44\x19\x58\x27\7\0\0\0", 8) + std::string(292, 'b');
    std::ofstream(file.GetFileName(), std::ios::binary) << strBad;
    ASSERT_EQ(Open(file), 15);
    fs::remove(file.GetFileName());
    ASSERT_EQ(Open(file), 0);
    EXPECT_EQ(ReadWhole(file.GetFileName()),
              std::string("\x44\x19\x58\x26\0\0\0\0", 8) + std::string(292, 'g'));
}

struct HistoryCase {
    std::vector<std::string> held;
    std::string strGone;  // empty: none of them
};

TEST_F(LogFileTest, KeepsFourDaysOfHistoryAndRemovesExactlyTheOldest) {
    std::vector<HistoryCase> cases = {
        {{"20010110.log", "20010111.log", "20010112.log"}, ""},
        {{"20010114.log", "20010111.log", "20010112.log", "20010113.log"}, "20010111.log"},
        {{"1.log", "2.log", "3.log", "4.log", "5.log"}, "1.log"},  // one a day, however many
        {{"20010111.log", "20010112.log", "20010113.log", "notes.log"}, "notes.log"},
        {{"20010111.log", "20010112.log", "20010113.log", "readme"}, ""},
        {{"-1.log", "-1.log.1", "-1.log.2", "-1.log.3"}, ""},  // no number below the start value
    };
    // Whatever stands in a name, the shell interprets nothing of it.
    for (const char* szName :
         {"1 2.log", "1\"$(touch p).log", "1'; touch p;'.log", "-rf *.log", "1`touch p`.log",
          "1\n2.log", "1&touch p&.log", "1*.log", "1\\.log", "\xff\xfe.log"}) {
        cases.push_back({{"20010111.log", "20010112.log", "20010113.log", "keep", szName}, szName});
    }
    for (const HistoryCase& c : cases) {
        for (const std::string& strName : c.held) {
            Write("/hislog/" + strName, "");
        }
        fs::create_directory(m_strRoot + "/hislog/0.log");  // no file: neither counts nor goes
        CLogFile file;
        ASSERT_EQ(Open(file), 0);
        std::vector<std::string> expected = c.held;
        std::erase(expected, c.strGone);
        expected.push_back(fs::path(file.GetFileName()).filename());
        expected.emplace_back("0.log");
        SetZone(kToday);
        EXPECT_EQ(file.SwitchLogFile(), 0);
        EXPECT_THAT(List("/hislog"), testing::UnorderedElementsAreArray(expected)) << c.strGone;
        EXPECT_THAT(List("/log"), ElementsAre(fs::path(file.GetFileName()).filename()));
        EXPECT_FALSE(fs::exists(m_strRoot + "/p") || fs::exists("p"));
        TearDown();
        SetUp();
    }
}

TEST_F(LogFileTest, SaysWhyASwitchFailedAndStoresOnInTheNewFile) {
    fs::remove_all(m_strRoot + "/hislog");
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    const std::string strFinished = file.GetFileName();
    SetZone(kToday);
    EXPECT_EQ(file.SwitchLogFile(), ENOENT);
    EXPECT_THAT(Trace(), testing::HasSubstr(
                             "SwitchLogFile\nfailed to find files in loghistory directory!\n"));
    EXPECT_TRUE(fs::exists(strFinished));
    EXPECT_EQ(WriteOne(file), 0);
}

TEST_F(LogFileTest, MovesNothingWhenTheDateIsStillThatOfTheOpenFile) {
    for (const char* szName : {"1.log", "2.log", "3.log", "4.log"}) {
        Write(std::string("/hislog/") + szName, "");
    }
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    ASSERT_EQ(WriteOne(file), 0);
    EXPECT_EQ(file.SwitchLogFile(), 0);
    EXPECT_EQ(WriteOne(file), 0);
    EXPECT_EQ(List("/hislog").size(), 4U);
    EXPECT_EQ(fs::file_size(file.GetFileName()), 3 * kRecordBytes);
}

}  // namespace
