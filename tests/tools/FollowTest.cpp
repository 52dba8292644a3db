// tarvik-log show -f: every record of the service once and in order, whatever the file does.
#include <csignal>

#include "core/Lock.h"
#include "logstore/LogFile.h"
#include "peers/Service.h"
#include "tools/ReadingTest.h"

namespace {

using testing::HasSubstr;

// Time zones a day apart, so that changing from one to the next is midnight.
constexpr const char* kYesterday = "DAY+24";
constexpr const char* kToday = "DAY+0";
constexpr const char* kTomorrow = "DAY-24";

class FollowTest : public ReadingTest {
protected:
    void SetUp() override {
        ReadingTest::SetUp();
        UseZone(kYesterday);
        Open();
    }

    static void UseZone(const char* szZone) {
        setenv("TZ", szZone, 1);
        tzset();
    }

    void Open() {
        const CLockGuard guard(m_File);
        ASSERT_EQ(m_File.OpenLogFile(), 0);
    }

    // Records with the next numbers as texts, as the service writes them.
    void WriteRecords(std::uint32_t nCount) {
        const CLockGuard guard(m_File);
        for (std::uint32_t i = 0; i < nCount; ++i) {
            ASSERT_EQ(m_File.WriteRecord(StampedRecord(0, 0, 1, std::to_string(++m_nWritten))), 0);
        }
    }

    void Follow(const std::string& strLast) {
        m_nShow = Start("show -f -n " + strLast, "followed");
        ASSERT_TRUE(WaitUntil([this] { return !Shown().empty(); }));
    }

    void Stop() const {
        kill(m_nShow, SIGSTOP);
        waitpid(m_nShow, nullptr, WUNTRACED);  // it may still run when kill returns
    }

    // Numbers shown so far.
    std::vector<std::uint32_t> Shown() const {
        std::vector<std::uint32_t> numbers;
        const std::string strOutput = Read("/followed");
        const std::string strWhole = strOutput.substr(0, strOutput.rfind('\n') + 1);
        for (const std::string& strLine : Lines(strWhole)) {
            numbers.push_back(
                static_cast<std::uint32_t>(std::stoul(strLine.substr(strLine.rfind(' ') + 1))));
        }
        return numbers;
    }
    std::string Errors() const { return Read("/followed.errors"); }

    // Waits for the newest record and expects all from nFirst on, each once.
    void ExpectAllFrom(std::uint32_t nFirst) {
        ASSERT_TRUE(WaitUntil([this] { return Shown().back() == m_nWritten; }))
            << Shown().back() << " " << Errors();
        const std::vector<std::uint32_t> shown = Shown();
        ASSERT_EQ(shown.size(), m_nWritten - nFirst + 1);
        for (std::size_t i = 0; i < shown.size(); ++i) {
            ASSERT_EQ(shown[i], nFirst + i);
        }
    }

    CLogFile m_File;
    std::uint32_t m_nWritten = 0;
    pid_t m_nShow = 0;
};

TEST_F(FollowTest, GoesRoundTheRingAndOverMidnights) {
    WriteRecords(10230);
    Follow("5");
    for (int i = 0; i < 40; ++i) {
        WriteRecords(1);
    }
    ExpectAllFrom(10226);
    // The last record of a day and the first of the next, while the file moves.
    WriteRecords(3);
    UseZone(kToday);
    ASSERT_EQ(m_File.SwitchLogFile(), 0);
    WriteRecords(3);
    ExpectAllFrom(10226);
}

TEST_F(FollowTest, MissesNoDayThatPassedWhileItWasStopped) {
    WriteRecords(1);
    Follow("10");
    Stop();
    for (const char* szZone : {kToday, kTomorrow}) {
        WriteRecords(2);
        UseZone(szZone);
        ASSERT_EQ(m_File.SwitchLogFile(), 0);
    }
    WriteRecords(2);
    kill(m_nShow, SIGCONT);
    ExpectAllFrom(1);
}

TEST_F(FollowTest, SaysHowManyRecordsWereTooFast) {
    WriteRecords(1);
    Follow("10");
    Stop();
    WriteRecords(kLogFileSlots + 7);
    kill(m_nShow, SIGCONT);
    ASSERT_TRUE(WaitUntil([this] { return Shown().back() == m_nWritten; }));
    EXPECT_EQ(Shown().size(), 1 + kLogFileSlots);
    EXPECT_THAT(Errors(), HasSubstr("7 records were overwritten before they could be shown\n"));
}

}  // namespace
