// The store under a full disk and a jumping clock, and what it costs the kernel.
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <regex>
#include <sstream>

#include "system/SystemTest.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;

TEST(FullDisk, CostsRecordsWhileItIsFullAndNothingElse) {
    CService service(TARVIK_LOGD);
    constexpr std::size_t kDisk = std::size_t{128} * 1024;
    CMounts mounts;
    if (!mounts.SmallDisk(service.Path("/log"), kDisk)) {
        GTEST_SKIP() << "no small disk can be mounted here: " << std::strerror(errno);
    }
    service.WriteFile("/log/20010101.log", "");  // shows that the start works on this disk
    ASSERT_TRUE(service.Start());
    const std::string strPath = TodayPath(service);
    CNumberedSender sender(service.RecordPort(), strPath);
    ASSERT_TRUE(sender.Send(0, 100));
    service.WriteFile("/log/filler", std::string(kDisk, 'f'));  // as much as fits
    CLogClient client(service.RecordPort());
    for (std::uint32_t i = 0; i < 120; ++i) {
        client.Send(MakeRecord(0, 0, CNumberedSender::Text(100 + i)));
    }
    // An invalid record leaves a trace: when it is there, everything before it was handled.
    client.Send(MakeRecord(100, 0, "too high"));
    ASSERT_TRUE(WaitUntil([&] {
        return !service.Trace().empty() && service.Trace().find("nvalid") != std::string::npos;
    }));
    const std::uint32_t nFull = CountIn(strPath);
    EXPECT_GE(nFull, 100U);
    EXPECT_LT(nFull, 220U);  // the disk was full indeed

    fs::remove(service.Path("/log/filler"));
    client.Send(MakeRecord(0, 0, "room again"));
    ASSERT_TRUE(WaitUntil([&] { return CountIn(strPath) > nFull; }));
    ASSERT_EQ(CountIn(strPath), 221U);  // a record that did not fit has its slot skipped
    const std::string strFile = service.ReadFile(strPath.substr(service.Root().size()));
    ASSERT_EQ(strFile.size(), 222 * kRecordBytes);
    for (std::uint32_t i = 0; i < nFull; ++i) {
        EXPECT_STREQ(strFile.data() + (i + 1) * kRecordBytes + kRecordHeadBytes,
                     CNumberedSender::Text(i).c_str());
    }
    EXPECT_STREQ(strFile.data() + 221 * kRecordBytes + kRecordHeadBytes, "room again");
    EXPECT_EQ(service.Stop(), 0);
}

// A service whose wall clock is read from a file of its root.
class JumpingClock : public testing::Test {
protected:
    void SetUp() override {
        UseZone("UTC");
        if (!m_Service.FakeClock()) {
            GTEST_SKIP() << "the clock cannot be replaced under a sanitizer";
        }
    }
    void SetClock(const std::string& strTime) const { m_Service.SetClock(strTime); }
    bool Exists(const std::string& strPath) const { return fs::exists(m_Service.Path(strPath)); }

    CService m_Service{TARVIK_LOGD};
};

TEST_F(JumpingClock, KeepsEveryDayInItsFileAndTheHistoryShort) {
    SetClock("2026-02-27 23:59:59");
    ASSERT_TRUE(m_Service.Start());
    CLogClient client(m_Service.RecordPort());
    const char* szDays[] = {"20260227", "20260228", "20260301", "20260302",
                            "20260303", "20260304", "19700101"};
    for (const char* szDay : szDays) {
        const std::string strDay = szDay;
        SetClock(strDay.substr(0, 4) + "-" + strDay.substr(4, 2) + "-" + strDay.substr(6) +
                 " 00:00:01");
        const std::string strPath = "/log/" + strDay + ".log";
        ASSERT_TRUE(WaitUntil([&] { return Exists(strPath); })) << strDay;
        // the record of the day waits for the move of the file before to be over
        ASSERT_TRUE(WaitUntil([&] { return m_Service.List("/log").size() == 1; })) << strDay;
        client.Send(MakeRecord(0, 0, strDay));
        ASSERT_TRUE(WaitUntil([&] { return CountIn(m_Service.Path(strPath)) == 1; })) << strDay;
    }
    EXPECT_THAT(m_Service.List("/hislog"),
                ElementsAre("20260301.log", "20260302.log", "20260303.log", "20260304.log"));
    EXPECT_EQ(RecordText(ReadDayFile(m_Service.Path("/hislog/20260303.log")).records.at(0)),
              "20260303");

    // The same day of another month is not noticed: the file of the day before goes on.
    SetClock("2026-05-01 12:00:00");
    client.Send(MakeRecord(0, 0, "May"));
    ASSERT_TRUE(WaitUntil([&] { return CountIn(m_Service.Path("/log/19700101.log")) == 2; }));
    EXPECT_EQ(m_Service.Stop(), 0);
    EXPECT_THAT(m_Service.List("/log"), ElementsAre("19700101.log"));
}

// Calls of the detached service's intake for each stored record: one select, one recvfrom, two
// seeks, two writes, and nothing else.
TEST(Cost, IsSixSystemCallsARecord) {
    if (kSanitized || CService::IsEmulated()) {
        GTEST_SKIP() << "a sanitizer or an emulator adds calls of its own";
    }
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    const std::string strPath = TodayPath(service);
    CNumberedSender sender(service.RecordPort(), strPath);
    ASSERT_TRUE(sender.Send(0, 10));

    const pid_t nIntake = service.Thread("logd.intake");
    ASSERT_GT(nIntake, 0);
    const std::string strReport = service.Path("/strace");
    const pid_t nStrace = fork();
    if (nStrace == 0) {
        const std::string strThread = std::to_string(nIntake);
        std::freopen("/dev/null", "w", stderr);
        execlp("strace", "strace", "-p", strThread.c_str(), "-o", strReport.c_str(), nullptr);
        _exit(127);
    }
    const std::string strStatus =
        "/proc/" + std::to_string(service.Pid()) + "/task/" + std::to_string(nIntake) + "/status";
    ASSERT_TRUE(WaitUntil([&] {
        std::FILE* pFile = std::fopen(strStatus.c_str(), "r");
        std::array<char, 4096> status{};
        const std::size_t nRead = std::fread(status.data(), 1, status.size() - 1, pFile);
        std::fclose(pFile);
        return std::string(status.data(), nRead).find("TracerPid:\t0\n") == std::string::npos;
    })) << "strace cannot attach";
    constexpr std::uint32_t kRecords = 300;
    EXPECT_TRUE(sender.Send(10, kRecords));
    kill(nStrace, SIGINT);
    CService::WaitFor(nStrace);

    std::map<std::string, std::uint32_t> calls;
    std::istringstream report(service.ReadFile("/strace"));
    for (std::string strLine; std::getline(report, strLine);) {
        // a select that timed out or was cut short by strace is no cost of a record
        if (strLine.find("(Timeout)") == std::string::npos &&
            strLine.find("ERESTART") == std::string::npos &&
            strLine.find("<detached") == std::string::npos && strLine.find('(') < 20) {
            ++calls[strLine.substr(0, strLine.find('('))];
        }
    }
    for (const auto& [strCall, nCount] : calls) {
        const std::uint32_t nPerRecord = strCall == "write" || strCall == "lseek" ? 2 : 1;
        EXPECT_TRUE(strCall == "select" || strCall == "pselect6" || strCall == "recvfrom" ||
                    strCall == "lseek" || strCall == "_llseek" || strCall == "write" ||
                    strCall == "restart_syscall")
            << strCall;
        if (strCall != "restart_syscall") {
            // the select that strace found running when it attached may count as a restart
            const double dSlack = strCall == "pselect6" || strCall == "select" ? 1 : 0;
            EXPECT_NEAR(nCount, kRecords * nPerRecord, dSlack) << strCall;
        }
    }
    EXPECT_EQ(calls.size(), 4U + calls.count("restart_syscall"));
    EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
