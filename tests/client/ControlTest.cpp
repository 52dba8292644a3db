// Control frames: what switches real-time logging, who hears of it, what it costs while off.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

#include "client/ClientHarness.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kIndex = 2;
constexpr std::size_t kThreads = 8;
constexpr int kRounds = 1000;

void Append(int nValue, void* pList) {
    static_cast<std::vector<int>*>(pList)->push_back(nValue);
}

// A client with a control port, the service, and what the callbacks heard.
class ClientControl : public testing::Test {
protected:
    void SetUp() override {
        tarvik_log_on_realtime(log.get(), Append, &listRealTime);
        tarvik_log_on_language(log.get(), Append, &listLanguage);
    }

    void Say(const std::string& strFrame) const { service.Send(wControl, strFrame); }

    // Sends the frame and has it taken up: how many were valid.
    int Tell(const std::string& strFrame) const {
        Say(strFrame);
        return tarvik_log_poll(log.get());
    }

    const CPort service;
    const std::uint16_t wControl = FreePort(SOCK_DGRAM);
    const Log log = OpenLog(kIndex, service.Number(), wControl);
    std::vector<int> listRealTime;
    std::vector<int> listLanguage;
};

std::string Changed(LogcCtrlFrame frame, std::uint32_t LogcCtrlFrame::*field, std::uint32_t dwValue,
                    std::size_t nLen = kRealTimeFrameBytes) {
    frame.*field = dwValue;
    return Bytes(frame, nLen);
}

TEST_F(ClientControl, UnderstandsTheBytesOfTheService) {
    const std::string strOn("\x47\x19\x58\x26\x18\0\0\0\x02\0\0\0\x04\0\0\0\x02\0\0\0\x64\0\0\0",
                            24);
    const std::string strEnglish("\x47\x19\x58\x26\x14\0\0\0\0\0\0\0\x0a\0\0\0\x01\0\0\0", 20);
    EXPECT_EQ(Tell(strOn), 1);
    EXPECT_EQ(tarvik_log_wants_realtime(log.get()), 100);
    EXPECT_EQ(Tell(RealTimeBytes(kIndex, 65535)), 1);
    EXPECT_EQ(Tell(strEnglish), 1);
    Say(RealTimeBytes(kIndex, 0));
    Say(RealTimeBytes(kIndex, 0));
    EXPECT_EQ(Tell(RealTimeBytes(kIndex, 0)), 3);
    EXPECT_EQ(tarvik_log_wants_realtime(log.get()), 0);
    EXPECT_EQ(Tell(Bytes(MakeLanguageFrame(0), kLanguageFrameBytes)), 1);
    EXPECT_THAT(listRealTime, ElementsAre(100, 65535, 0));
    EXPECT_THAT(listLanguage, ElementsAre(1, 0));
}

TEST_F(ClientControl, IgnoresEverythingElse) {
    const LogcCtrlFrame on = MakeRealTimeFrame(kIndex, 7);
    const LogcCtrlFrame language = MakeLanguageFrame(1);
    const std::pair<const char*, std::string> kRows[] = {
        {"nothing", ""},
        {"magic of a record", Changed(on, &LogcCtrlFrame::dwMagic, LOG_RECORD_MAGIC)},
        {"shorter than it says", Bytes(on, 23)},
        {"longer than it says", Bytes(on, 24) + "x"},
        {"real-time in 20 bytes", Changed(on, &LogcCtrlFrame::dwLength, 20, 20)},
        {"another client", RealTimeBytes(kIndex + 1, 7)},
        {"two clients", Changed(on, &LogcCtrlFrame::dwParam1, kIndex + 1)},
        {"other command", Changed(on, &LogcCtrlFrame::dwCommand, 5)},
        {"value too large", RealTimeBytes(kIndex, 65536)},
        {"language in 24 bytes", Changed(language, &LogcCtrlFrame::dwLength, 24, 24)},
        {"language of no number", Changed(language, &LogcCtrlFrame::dwParam1, 2, 20)},
    };
    for (const auto& [szName, strFrame] : kRows) {
        EXPECT_EQ(Tell(strFrame), 0) << szName;
    }
    EXPECT_THAT(listRealTime, IsEmpty());
    EXPECT_THAT(listLanguage, IsEmpty());
    EXPECT_EQ(Tell(RealTimeBytes(kIndex, 7)), 1);  // and is not put off by it
}

TEST_F(ClientControl, RealTimeCallsFormatAndSendOnlyWhileOn) {
    EXPECT_EQ(LogFromC(log.get()), 0);
    EXPECT_THAT(service.Texts(4), testing::SizeIs(4));

    ASSERT_EQ(Tell(RealTimeBytes(kIndex, 1)), 1);
    EXPECT_EQ(LogFromC(log.get()), 1);
    EXPECT_EQ(tarvik_log_realtime_print(log.get(), "%d", 5), 0);
    EXPECT_EQ(tarvik_log_write(log.get(), TARVIK_LOG_REALTIME, "six", 3), 0);
    const auto first = service.Receive();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->nType, 4);
    EXPECT_THAT(service.Texts(7),
                ElementsAre("info", "1", "warning", "error 2", "debug", "5", "six"));

    ASSERT_EQ(Tell(RealTimeBytes(kIndex, 0)), 1);
    EXPECT_EQ(tarvik_log_realtime_print(log.get(), "%d", 5), 0);
    EXPECT_EQ(tarvik_log_write(log.get(), TARVIK_LOG_REALTIME, "six", 3), 0);
    EXPECT_EQ(LogFromC(log.get()), 0);
    EXPECT_THAT(service.Texts(4), ElementsAre("info", "warning", "error 2", "debug"));
    EXPECT_EQ(CountsOf(log), (Counts{16, 0}));
}

TEST_F(ClientControl, CallsThatLogNoticeFramesByThemselves) {
    for (int n = 0; n < 1000; ++n) {
        tarvik_log_realtime(log.get(), "closely, so that most do not look");
    }
    Say(RealTimeBytes(kIndex, 3));
    // What the contract gives: 10 ms, here by a clock that may be coarse, and 16 calls.
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
    int nCalls = 0;
    while (nCalls < 16 && tarvik_log_wants_realtime(log.get()) == 0) {
        ++nCalls;
    }
    EXPECT_LT(nCalls, 16);
    EXPECT_THAT(listRealTime, ElementsAre(3));
    Say(RealTimeBytes(kIndex, 0));
    EXPECT_TRUE(WaitUntil([&] {
        tarvik_log_info(log.get(), "any call");
        return !listRealTime.empty() && listRealTime.back() == 0;
    }));
}

struct Reentry {
    tarvik_log* pLog;
    std::atomic<int> nCalls = 0;
};

// Does all that a callback may.
void LogAgain(int nValue, void* pReentry) {
    auto* const pThis = static_cast<Reentry*>(pReentry);
    tarvik_log_info(pThis->pLog, "now %d", nValue);
    tarvik_log_poll(pThis->pLog);
    tarvik_log_on_language(pThis->pLog, nullptr, nullptr);
    ++pThis->nCalls;  // last, since the test may then be over
}

TEST_F(ClientControl, CallbacksMayUseTheHandleAlsoOfAThreadThatNoForkedChildHas) {
    Reentry reentry{log.get()};
    tarvik_log_on_realtime(log.get(), LogAgain, &reentry);
    EXPECT_EQ(Tell(RealTimeBytes(kIndex, 3)), 1);
    EXPECT_EQ(Tell(Bytes(MakeLanguageFrame(1), kLanguageFrameBytes)), 1);
    EXPECT_THAT(listLanguage, IsEmpty());
    ASSERT_EQ(tarvik_log_start_thread(log.get()), 0);
    EXPECT_EQ(tarvik_log_start_thread(log.get()), -EALREADY);
    Say("garbage");
    Say(RealTimeBytes(kIndex, 9));
    EXPECT_TRUE(WaitUntil([&] { return reentry.nCalls == 2; }));
    EXPECT_THAT(service.Texts(2), ElementsAre("now 3", "now 9"));
    EXPECT_EQ(tarvik_log_wants_realtime(log.get()), 9);

    const pid_t nChild = fork();
    if (nChild == 0) {
        alarm(kLimitMs / 1000);  // a close that waits for the thread
        tarvik_log_close(log.get());
        _exit(7);
    }
    int nStatus = 0;
    waitpid(nChild, &nStatus, 0);
    EXPECT_TRUE(WIFEXITED(nStatus) && WEXITSTATUS(nStatus) == 7) << nStatus;
    Say(RealTimeBytes(kIndex, 0));
    EXPECT_TRUE(WaitUntil([&] { return reentry.nCalls == 3; }));
    EXPECT_EQ(tarvik_log_wants_realtime(log.get()), 0);
}

// Runs body(thread, round) on several threads at once.
void RunThreads(const std::function<void(int, int)>& body) {
    std::vector<std::thread> listThreads(kThreads);
    for (std::size_t nThread = 0; nThread < kThreads; ++nThread) {
        listThreads[nThread] = std::thread([&body, nThread] {
            for (int nRound = 0; nRound < kRounds; ++nRound) {
                body(static_cast<int>(nThread), nRound);
            }
        });
    }
    for (std::thread& thread : listThreads) {
        thread.join();
    }
}

void CountCall(int, void* pCount) {
    ++*static_cast<std::atomic<int>*>(pCount);
}

// Nobody is at the service's port, so each of the records comes back, to be counted exactly once.
TEST(ClientThreads, ShareOneHandle) {
    const std::uint16_t wControl = FreePort(SOCK_DGRAM);
    const Log log = OpenLog(kIndex, FreePort(SOCK_DGRAM), wControl);
    const CPort console;
    std::atomic<int> nHeard = 0;
    std::atomic<std::uint64_t> nRealTime = 0;
    EXPECT_EQ(tarvik_log_start_thread(log.get()), 0);
    RunThreads([&](int nThread, int nRound) {
        EXPECT_EQ(tarvik_log_realtime(log.get(), "%d", static_cast<int>(++nRealTime)), 0);
        if (nRound % 100 == nThread) {
            console.Send(wControl, RealTimeBytes(kIndex, nRound % 200 < 100 ? 1 : 0));
            tarvik_log_poll(log.get());
            tarvik_log_on_realtime(log.get(), CountCall, &nHeard);
            CountsOf(log);
        }
    });
    EXPECT_GT(nHeard, 0);
    EXPECT_TRUE(WaitUntil([&] { return CountsOf(log).nSent == 0; }));
    const Counts before = CountsOf(log);
    EXPECT_GT(before.nLost, 0U);
    EXPECT_LE(before.nLost, nRealTime);  // it may go off between the question and the record

    RunThreads([&](int nThread, int nRound) {
        EXPECT_EQ(tarvik_log_info(log.get(), "%d/%d", nThread, nRound), 0);
    });
    const Counts after{0, before.nLost + kThreads * kRounds};
    EXPECT_TRUE(WaitUntil([&] { return CountsOf(log) == after; }))
        << CountsOf(log).nLost << ", not " << after.nLost;
}

}  // namespace
