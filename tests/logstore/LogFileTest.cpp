// The day's file: its layout, its ring, what it refuses to open, and its way into the history.
#include "logstore/LogFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "peers/PrivateRoot.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

// Time zones one day apart, so that changing from the first to the second is a change of date.
constexpr const char* kYesterday = "DAY+12";
constexpr const char* kToday = "DAY-12";

void SetZone(const char* szZone) {
    setenv("TZ", szZone, 1);
    tzset();
}

LogRecord NumberedRecord(std::uint32_t nNumber) {
    LogRecord record{};
    record.dwMagic = LOG_RECORD_MAGIC;
    record.nIndex = 1;
    std::memcpy(record.szText, &nNumber, sizeof(nNumber));
    record.szText[kRecordTextBytes - 1] = 'z';
    return record;
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
    static int Write(CLogFile& file, std::uint32_t nNumber) {
        const CLockGuard guard(file);
        return file.WriteRecord(NumberedRecord(nNumber));
    }
    std::string Read(const std::string& strPath) const {
        std::ifstream file(strPath, std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }
    void Create(const std::string& strPath, const std::string& strContent = "") const {
        std::ofstream(m_strRoot + strPath, std::ios::binary) << strContent;
    }
    std::vector<std::string> List(const char* szDirectory) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_strRoot + szDirectory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }
    std::string Trace() const { return Read(m_strRoot + "/var/log/logs.txt"); }
};

std::uint32_t CountOf(const std::string& strFile) {
    std::uint32_t dwCount = 0;
    std::memcpy(&dwCount, strFile.data() + 4, sizeof(dwCount));
    return dwCount;
}

std::uint32_t NumberInSlot(const std::string& strFile, std::size_t nSlot) {
    std::uint32_t nNumber = 0;
    std::memcpy(&nNumber, strFile.data() + nSlot * kRecordBytes + kRecordHeadBytes, 4);
    return nNumber;
}

TEST_F(LogFileTest, StartsWithAnEmptyHeaderThatAnyUserMayChange) {
    umask(077);
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    std::string strHeader(300, '\0');
    strHeader.replace(0, 4, "\x44\x19\x58\x26");
    EXPECT_EQ(Read(file.GetFileName()), strHeader);
    struct stat status {};
    ASSERT_EQ(stat(file.GetFileName().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0666U);
}

TEST_F(LogFileTest, GoesRoundInItsRingAndGoesOnAfterReopening) {
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    for (std::uint32_t i = 1; i <= kLogFileSlots; ++i) {
        ASSERT_EQ(Write(file, i), 0);
    }
    std::string strFile = Read(file.GetFileName());
    EXPECT_EQ(strFile.size(), 3071700U);
    EXPECT_EQ(CountOf(strFile), 10238U);
    EXPECT_EQ(NumberInSlot(strFile, 10238), 10238U);

    ASSERT_EQ(Open(file), 0);  // the counter comes back from the file
    ASSERT_EQ(Write(file, 70001), 0);
    ASSERT_EQ(Write(file, 70002), 0);
    strFile = Read(file.GetFileName());
    EXPECT_EQ(strFile.size(), 3071700U);
    EXPECT_EQ(CountOf(strFile), 10241U);
    EXPECT_EQ(NumberInSlot(strFile, 1), 70001U);
    EXPECT_EQ(NumberInSlot(strFile, 2), 70002U);
    EXPECT_EQ(NumberInSlot(strFile, 3), 3U);
}

TEST_F(LogFileTest, RefusesWhatIsNoDaysFileAndLeavesItAlone) {
    const std::string strWrongMagic = "\x45\x19\x58\x26" + std::string(596, 'x');
    const std::string strShort = "\x44\x19\x58\x26" + std::string(146, 'x');
    for (const std::string& strContent : {strWrongMagic, strShort, std::string(1, '\x44')}) {
        CLogFile file;
        std::ofstream(CLogFile::GetTodayLogFileName(), std::ios::binary) << strContent;
        EXPECT_EQ(Open(file), 15);
        EXPECT_THAT(Trace(), testing::HasSubstr("OpenLogFile\nfailed to read file header!!!\n"));
        EXPECT_EQ(Write(file, 1), 5);
        EXPECT_EQ(Read(file.GetFileName()), strContent);
    }
    fs::remove_all(m_strRoot + "/log");
    CLogFile file;
    EXPECT_EQ(Open(file), 10);
    EXPECT_THAT(Trace(), testing::HasSubstr("OpenLogFile\nfailed to open file \n"));
    EXPECT_EQ(Write(file, 1), 5);
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
    EXPECT_EQ(Read(file.GetFileName()),
              std::string("\x44\x19\x58\x26\0\0\0\0", 8) + std::string(292, 'g'));
}

TEST_F(LogFileTest, KeepsFourDaysOfHistory) {
    struct Case {
        std::vector<std::string> held;
        std::vector<std::string> gone;
    };
    const std::vector<Case> cases = {
        {{"20010110.log", "20010111.log", "20010112.log"}, {}},
        {{"20010114.log", "20010111.log", "20010112.log", "20010113.log"}, {"20010111.log"}},
        {{"1.log", "2.log", "3.log", "4.log", "5.log"}, {"1.log"}},  // one a day, however many
        {{"20010111.log", "20010112.log", "20010113.log", "notes.log"}, {"notes.log"}},
        {{"20010111.log", "20010112.log", "20010113.log", "readme"}, {}},
        {{"-1.log", "-1.log.1", "-1.log.2", "-1.log.3"}, {}},  // no number below the start value
    };
    for (const Case& c : cases) {
        SetZone(kYesterday);
        for (const std::string& strName : c.held) {
            Create("/hislog/" + strName);
        }
        CLogFile file;
        ASSERT_EQ(Open(file), 0);
        ASSERT_EQ(Write(file, 5), 0);
        const std::string strFinished = fs::path(file.GetFileName()).filename();
        SetZone(kToday);
        ASSERT_EQ(file.SwitchLogFile(), 0);
        ASSERT_EQ(Write(file, 6), 0);

        std::vector<std::string> expected = c.held;
        for (const std::string& strName : c.gone) {
            expected.erase(std::find(expected.begin(), expected.end(), strName));
        }
        expected.push_back(strFinished);
        EXPECT_THAT(List("/hislog"), testing::UnorderedElementsAreArray(expected));
        EXPECT_EQ(NumberInSlot(Read(m_strRoot + "/hislog/" + strFinished), 1), 5U);
        EXPECT_THAT(List("/log"), ElementsAre(fs::path(file.GetFileName()).filename()));
        EXPECT_EQ(NumberInSlot(Read(file.GetFileName()), 1), 6U);
        fs::remove_all(m_strRoot + "/hislog");
        fs::create_directory(m_strRoot + "/hislog");
        fs::remove(file.GetFileName());
    }
}

// Whatever stands in a name, the removal acts on that entry and the shell interprets nothing of it.
TEST_F(LogFileTest, RemovesExactlyTheOldestEntryWhateverItsName) {
    const std::vector<std::string> names = {
        "1 2.log",        "1\"$(touch p).log", "1'; touch p;'.log", "-rf *.log",
        "1`touch p`.log", "1\n2.log",          "1&touch p&.log",    "1*.log",
        "1\\.log",        "\xff\xfe.log"};
    for (const std::string& strName : names) {
        SetZone(kYesterday);
        for (const char* szKept : {"20010111.log", "20010112.log", "20010113.log", "keep"}) {
            Create(std::string("/hislog/") + szKept);
        }
        Create("/hislog/" + strName);
        CLogFile file;
        ASSERT_EQ(Open(file), 0);
        const std::string strFinished = fs::path(file.GetFileName()).filename();
        SetZone(kToday);
        EXPECT_EQ(file.SwitchLogFile(), 0);
        EXPECT_THAT(List("/hislog"), UnorderedElementsAre("20010111.log", "20010112.log",
                                                          "20010113.log", "keep", strFinished))
            << strName;
        EXPECT_FALSE(fs::exists(m_strRoot + "/p") || fs::exists("p"));
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
    EXPECT_EQ(Write(file, 9), 0);
}

TEST_F(LogFileTest, MovesNothingWhenTheDateIsStillThatOfTheOpenFile) {
    for (const char* szName : {"1.log", "2.log", "3.log", "4.log"}) {
        Create(std::string("/hislog/") + szName);
    }
    CLogFile file;
    ASSERT_EQ(Open(file), 0);
    ASSERT_EQ(Write(file, 1), 0);
    EXPECT_EQ(file.SwitchLogFile(), 0);
    EXPECT_EQ(Write(file, 2), 0);
    EXPECT_EQ(List("/hislog").size(), 4U);
    EXPECT_EQ(NumberInSlot(Read(file.GetFileName()), 2), 2U);
}

}  // namespace
