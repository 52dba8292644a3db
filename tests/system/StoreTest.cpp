// What programs send is what the day's file holds, byte for byte, and what a record costs.
#include <fmt/format.h>

#include <csignal>
#include <cstdio>
#include <map>
#include <sstream>

#include "system/SystemTest.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Pair;

template <class T>
std::string Bytes(const T& structure) {
    return {reinterpret_cast<const char*>(&structure), sizeof(structure)};
}

struct StoreCase {
    std::string strSent;
    std::string strStored;
};

// Forty records that anybody sends, then the edges.
std::vector<StoreCase> StoreCases() {
    LogRecord full = MakeRecord(99, 3, std::string(280, 'x'));  // no NUL in the text
    full.byReserved = 0xEE;
    LogRecord wrong = full;
    wrong.dwMagic ^= 1;
    const std::string strFull = Bytes(full);
    std::vector<StoreCase> cases;
    for (int i = 0; i < 40; ++i) {
        const std::string strRecord = Bytes(MakeRecord(i % 3, i % 4, std::to_string(i)));
        cases.push_back({strRecord, strRecord});
    }
    const std::string strLowest = Bytes(MakeRecord(INT32_MIN, -1, "below zero"));
    cases.insert(cases.end(), {{strFull + std::string(100, 'y'), strFull},  // 300 of 400 count
                               {strLowest, strLowest},
                               {"", ""},
                               {strFull.substr(0, 1), ""},
                               {strFull.substr(0, 299), ""},
                               {Bytes(wrong), ""},
                               {Bytes(MakeRecord(100, 0, "index too high")), ""},
                               {Bytes(MakeRecord(INT32_MAX, INT32_MAX, "both too high")), ""},
                               {Bytes(MakeRecord(0, 5, "type too high")), ""},
                               {strFull, strFull}});
    return cases;
}

TEST(Store, HoldsEveryValidRecordByteForByteAndNothingElse) {
    CService service(TARVIK_LOGD);
    service.WriteFile("/dev/tarvik/TarvikLed", "");
    service.WriteFile("/log/20010101.log", "stale");
    ASSERT_TRUE(service.Start());
    CLogClient client(service.RecordPort());
    LogFileHeader header{};
    header.dwMagic = LOG_RECORD_MAGIC;
    std::string strStored;
    for (const StoreCase& c : StoreCases()) {
        client.SendBytes(c.strSent.data(), c.strSent.size());
        strStored += c.strStored;
        header.dwCount += c.strStored.empty() ? 0 : 1;
    }
    ASSERT_TRUE(WaitUntil([&] { return CountIn(TodayPath(service)) == header.dwCount; }));
    EXPECT_THAT(service.Trace(), HasSubstr("Run\nLogRecvThread recv nvalid log frame\n"));
    const std::string strName = TodayPath(service).substr(service.Root().size());
    EXPECT_EQ(service.ReadFile(strName), Bytes(header) + strStored);
    EXPECT_EQ(service.List("/log").size(), 1U);
    std::string strLed;  // twenty of the forty are of type 1 or 2
    for (int i = 0; i < 20; ++i) {
        strLed += std::string("\1\0\0\0", 4);
    }
    EXPECT_EQ(service.ReadFile("/dev/tarvik/TarvikLed"), strLed);
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_THAT(service.Trace(),
                AllOf(HasSubstr("LogRecvThread.cpp"), HasSubstr("Run\nrecv thread exit!\n")));
}

// How often a thread of the service makes each system call while fnMeanwhile runs.
std::map<std::string, std::uint32_t> CallsOf(const CService& service, pid_t nThread,
                                             const std::function<void()>& fnMeanwhile) {
    const pid_t nStrace = fork();
    if (nStrace == 0) {
        if (std::freopen("/dev/null", "w", stderr) == nullptr) {
            _exit(127);
        }
        execlp("strace", "strace", "-p", std::to_string(nThread).c_str(), "-o",
               service.Path("/strace").c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(WaitUntil([&] {
        std::ostringstream status;
        status << std::ifstream(fmt::format("/proc/{}/task/{}/status", service.Pid(), nThread))
                      .rdbuf();
        return status.str().find("TracerPid:\t0\n") == std::string::npos;
    })) << "strace cannot attach";
    fnMeanwhile();
    kill(nStrace, SIGINT);
    CService::WaitFor(nStrace);
    std::map<std::string, std::uint32_t> calls;
    std::istringstream report(service.ReadFile("/strace"));
    for (std::string strLine; std::getline(report, strLine);) {
        // a select that timed out or was cut short by strace is no cost of a record
        if (strLine.find('(') < 16 && strLine.find("(Timeout)") == std::string::npos &&
            strLine.find("ERESTART") == std::string::npos &&
            strLine.find("<detached") == std::string::npos) {
            ++calls[strLine.substr(0, strLine.find('('))];
        }
    }
    calls.erase("restart_syscall");  // the select that ran when strace attached
    return calls;
}

TEST(Cost, IsOneSelectOneReceiveAndTwoWritesARecordThatComesAlone) {
    if (kSanitized || CService::IsEmulated()) {
        GTEST_SKIP() << "a sanitizer or an emulator adds calls of its own";
    }
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CNumberedSender sender(service.RecordPort(), TodayPath(service));
    ASSERT_TRUE(sender.Send(0, 10));
    constexpr std::uint32_t kRecords = 100;
    const auto calls = CallsOf(service, service.Thread("logd.intake"), [&] {
        for (std::uint32_t nRecord = 0; nRecord < kRecords; ++nRecord) {
            EXPECT_TRUE(sender.Send(10 + nRecord, 1));
        }
    });
    EXPECT_THAT(calls,
                testing::UnorderedElementsAre(
                    Pair(AnyOf("select", "pselect6"), AllOf(Ge(kRecords - 1), Le(kRecords + 1))),
                    Pair("recvmmsg", kRecords), Pair(AnyOf("pwrite64", "pwrite"), 2 * kRecords)));
    EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
