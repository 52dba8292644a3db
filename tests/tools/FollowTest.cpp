// tarvik-log show of what the service's own class writes: every record once and in order, also with
// -f, whatever the file does.
#include <algorithm>
#include <csignal>
#include <numeric>

#include "core/Lock.h"
#include "logstore/LogFile.h"
#include "peers/Service.h"
#include "tools/ReadingTest.h"

namespace {

// Time zones a day apart, so that changing from one to the next is midnight.
constexpr const char* kYesterday = "DAY+24";
constexpr const char* kToday = "DAY+0";
constexpr const char* kTomorrow = "DAY-24";

class FollowTest : public ReadingTest {
protected:
    void SetUp() override {
        ReadingTest::SetUp();
        UseZone(kYesterday);
        const CLockGuard guard(m_File);
        ASSERT_EQ(m_File.OpenLogFile(), 0);
    }

    static void UseZone(const char* szZone) {
        setenv("TZ", szZone, 1);
        tzset();
    }

    void PassMidnight(const char* szZone) {
        UseZone(szZone);
        ASSERT_EQ(m_File.SwitchLogFile(), 0);
    }

    // Records with the next numbers as texts, as the service writes them.
    void WriteRecords(std::uint32_t nCount) {
        const CLockGuard guard(m_File);
        for (std::uint32_t i = 0; i < nCount; ++i) {
            ASSERT_EQ(m_File.WriteRecord(StampedRecord(0, 0, 1, std::to_string(++m_nWritten))), 0);
        }
    }

    void Follow() {
        m_nShow = Start("show -f -n 5", "followed");
        ASSERT_TRUE(WaitUntil([this] { return !Shown().empty(); }));
    }

    void Stop() const {
        kill(m_nShow, SIGSTOP);
        waitpid(m_nShow, nullptr, WUNTRACED);  // it may still run when kill returns
    }

    // The numbers in the whole lines of an output.
    static std::vector<std::uint32_t> Numbers(const std::string& strOutput) {
        std::vector<std::uint32_t> numbers;
        for (const std::string& strLine : Lines(strOutput.substr(0, strOutput.rfind('\n') + 1))) {
            numbers.push_back(
                static_cast<std::uint32_t>(std::stoul(strLine.substr(strLine.rfind(' ') + 1))));
        }
        return numbers;
    }

    std::vector<std::uint32_t> Shown() const { return Numbers(Read("/followed")); }  // so far

    // The numbers of the newest nCount records.
    std::vector<std::uint32_t> Newest(std::uint32_t nCount) const {
        std::vector<std::uint32_t> numbers(nCount);
        std::iota(numbers.begin(), numbers.end(), m_nWritten - nCount + 1);
        return numbers;
    }

    // Waits for the newest record and expects all from nFirst on, each once.
    void ExpectAllFrom(std::uint32_t nFirst) {
        EXPECT_TRUE(WaitUntil([this] { return Shown().back() == m_nWritten; })) << Shown().back();
        EXPECT_TRUE(Shown() == Newest(m_nWritten - nFirst + 1)) << Read("/followed.errors");
    }

    CLogFile m_File;
    std::uint32_t m_nWritten = 0;
    pid_t m_nShow = 0;
};

// Looked at before, at and behind the end of the ring.
TEST_F(FollowTest, ShowGivesTheRingInTheOrderWritten) {
    for (const std::uint32_t nTotal :
         {0U, kLogFileSlots, kLogFileSlots + 1, 2 * kLogFileSlots + 1}) {
        WriteRecords(nTotal - m_nWritten);
        EXPECT_TRUE(Numbers(Run("show").strOutput) == Newest(std::min(nTotal, kLogFileSlots)))
            << nTotal;
        auto newest = Newest(std::min(nTotal, 300U));
        EXPECT_TRUE(Numbers(Run("show -n 300").strOutput) == newest) << nTotal;
        std::reverse(newest.begin(), newest.end());
        EXPECT_TRUE(Numbers(Run("show -n 300 --reverse").strOutput) == newest) << nTotal;
    }
}

TEST_F(FollowTest, GoesRoundTheRingAndOverMidnights) {
    WriteRecords(10230);
    Follow();
    WriteRecords(40);
    ExpectAllFrom(10226);
    // The last record of a day and the first of the next, while the file moves.
    WriteRecords(3);
    PassMidnight(kToday);
    WriteRecords(3);
    ExpectAllFrom(10226);
}

TEST_F(FollowTest, MissesNothingWhileItIsStoppedButWhatIsOverwritten) {
    WriteRecords(1);
    Follow();
    Stop();
    for (const char* szZone : {kToday, kTomorrow}) {
        WriteRecords(2);
        PassMidnight(szZone);
    }
    WriteRecords(2);
    kill(m_nShow, SIGCONT);
    ExpectAllFrom(1);
    Stop();
    WriteRecords(kLogFileSlots + 7);
    kill(m_nShow, SIGCONT);
    ASSERT_TRUE(WaitUntil([this] { return Shown().back() == m_nWritten; }));
    EXPECT_EQ(Shown().size(), m_nWritten - 7);
    EXPECT_THAT(Read("/followed.errors"),
                testing::HasSubstr("7 records were overwritten before they could be shown\n"));
}

}  // namespace
