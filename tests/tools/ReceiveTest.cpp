// tarvik-log agent, receive and fetch: what arrives is what was there, whoever else connects and
// whenever the receiver is killed.
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

#include "core/MonoClock.h"
#include "core/Socket.h"
#include "peers/Service.h"
#include "tools/Agent.h"
#include "tools/Download.h"
#include "tools/FakeSession.h"
#include "tools/LogClient.h"
#include "tools/PeerSocket.h"
#include "tools/ReadingTest.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kManyBytes = 100'000;
constexpr bool kMeasuresMemory = false;
#else
constexpr std::size_t kManyBytes = std::size_t{kLogFileUnits} * kRecordBytes;
constexpr bool kMeasuresMemory = true;
#endif

// Bytes among which no two places look alike.
std::string Pattern(std::size_t nBytes) {
    std::string strBytes(nBytes, '\0');
    for (std::size_t i = 0; i < nBytes; ++i) {
        strBytes[i] = static_cast<char>((static_cast<std::uint32_t>(i) * 2654435761U) >> 24U);
    }
    return strBytes;
}

std::string Yesterday() {
    return DayNames(2, std::time(nullptr)).front();
}

class Receive : public ReadingTest {
protected:
    void TearDown() override {
        if (m_nPid > 0) {
            Stop(SIGKILL);
        }
        ReadingTest::TearDown();
    }

    // Starts "tarvik-log" in the root; its output goes to files there.
    pid_t Start(const std::string& strArguments, const std::string& strFile) const {
        const std::string strCommand =
            fmt::format("cd '{0}' && exec {1} {2} >{3} 2>{3}.errors </dev/null", m_strRoot,
                        TARVIK_LOG, strArguments, strFile);
        const pid_t nPid = fork();
        if (nPid == 0) {
            execl("/bin/sh", "sh", "-c", strCommand.c_str(), nullptr);
            _exit(127);
        }
        return nPid;
    }
    // Waits for its end: the exit status, or 128 and the signal.
    static int End(pid_t nPid) {
        int nStatus = 0;
        waitpid(nPid, &nStatus, 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    }

    // The receiver, on a free port or on that of the start before.
    void StartReceive(const std::string& strArguments) {
        fs::remove(m_strRoot + "/receive.errors");
        m_nPid =
            Start(fmt::format("receive --into got --port {} {}", m_wPort, strArguments), "receive");
        const std::string strBefore = "receiver listens on 0.0.0.0:";
        ASSERT_TRUE(WaitUntil([&] { return Errors().find('\n') != std::string::npos; }));
        ASSERT_THAT(Errors(), testing::StartsWith(strBefore));
        m_wPort = static_cast<std::uint16_t>(std::stoi(Errors().substr(strBefore.size())));
    }
    int End() { return End(std::exchange(m_nPid, 0)); }
    int Stop(int nSignal = SIGTERM) {
        kill(m_nPid, nSignal);
        return End();
    }
    std::string Errors() const { return ReadWhole(m_strRoot + "/receive.errors"); }
    std::string Got(const std::string& strPath) const {
        return ReadWhole(m_strRoot + "/got/" + strPath);
    }
    bool ErrorsGet(const std::string& strText) const {
        return WaitUntil([&] { return Errors().find(strText) != std::string::npos; });
    }

    pid_t m_nPid = 0;
    std::uint16_t m_wPort = 0;
};

TEST_F(Receive, FetchBringsTheHistoryOfThisMachineAsItIs) {
    CService service(TARVIK_LOGD);
    const std::string strFetch =
        fmt::format("fetch --into got --config {} ", service.Path("/etc/tarvik/log/log.conf"));
    EXPECT_THAT(Run(strFetch + "--wait 0.1").strErrors, HasSubstr("no service connected"));
    const std::string strWhole = Pattern(std::size_t{kLogFileUnits} * kRecordBytes);
    service.WriteFile("/hislog/" + Yesterday(), strWhole);
    ASSERT_TRUE(service.Start());
    Result result = Run(strFetch);
    EXPECT_EQ(result.nStatus, 0) << result.strErrors;
    EXPECT_THAT(result.strOutput, HasSubstr("got: 2 files (3072000 bytes), 3 days not kept"));
    EXPECT_TRUE(Got(Yesterday()) == strWhole);
    const std::string strToday = DayNames(1, std::time(nullptr)).front();
    EXPECT_EQ(Got(strToday), service.ReadFile("/log/" + strToday));
    result = Run(strFetch + "--days 2 --get nothing.log");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strOutput, HasSubstr("1 file (300 bytes), 1 here already"));
    EXPECT_THAT(result.strErrors, HasSubstr("nothing.log: the service has no such file"));
    const CPeerListener agent;
    result = Run(fmt::format("fetch --port {}", agent.Port()));
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, HasSubstr("a management agent runs there already"));
}

// A service that ends in the handshake, or with it, gets no answer out to the agent.
TEST_F(Receive, FetchEndsWhenTheSessionDoesNotGetThroughItsHandshake) {
    const std::uint16_t wPort = CPeerListener().Port();
    const pid_t nPid = Start(fmt::format("fetch --port {} --wait 0.5", wPort), "fetch");
    CUniqueFd service;
    ASSERT_TRUE(WaitUntil([&] {
        service.Reset(MakeSocket(SOCK_STREAM));
        const sockaddr_in address = LoopbackAddress(wPort);
        return connect(service.Get(), reinterpret_cast<const sockaddr*>(&address),
                       sizeof(address)) == 0;
    }));
    CPeerSocket link(std::move(service));
    PeerBytes value(sizeof(std::uint32_t));
    StoreLe32(value.data(), kRegisterValue);
    link.Send(AgentFrame{CMD_REGISTER, value}.Encode());
    ASSERT_TRUE(link.ReceiveFrame(&CBuff::CheckFeFrame));
    const auto request = link.ReceiveFrame(&CBuff::CheckFeFrame);
    ASSERT_TRUE(request);
    const std::uint8_t* const pPort =
        &(*request)[kCmdHeadBytes + kHlogBlockOffset + kBlockPortOffset];
    CFakeSession session(LoadLe16(pPort), "127.0.0.1", "", {});
    std::this_thread::sleep_for(std::chrono::seconds(1));  // the wait passes meanwhile
    session.Close();
    EXPECT_EQ(End(nPid), 1);
    EXPECT_THAT(ReadWhole(m_strRoot + "/fetch.errors"), HasSubstr("starts no session"));
}

TEST_F(Receive, LiveRecordsThatWereSubscribedToBecomeJsonLines) {
    CService service(TARVIK_LOGD);
    StartReceive("--live --client beta --type warning -o json --live-to live --records 3");
    const pid_t nAgent = Start(fmt::format("agent --config {} --receiver 127.0.0.1:{} --node 7",
                                           service.Path("/etc/tarvik/log/log.conf"), m_wPort),
                               "agent");
    EXPECT_TRUE(service.Start());
    EXPECT_TRUE(ErrorsGet("session with node 7"));
    CLogClient client(service.RecordPort());
    int nStatus = 0;
    EXPECT_TRUE(WaitUntil([&] {
        for (const auto& [nIndex, nType] : {ClientAndType{1, 0}, {1, 1}, {0, 1}}) {
            client.Send(MakeRecord(nIndex, nType, "it's \"live\""));
        }
        return waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid;
    }));
    m_nPid = 0;
    EXPECT_EQ(nStatus, 0) << Errors();
    kill(nAgent, SIGTERM);
    EXPECT_EQ(End(nAgent), 0);
    EXPECT_THAT(ReadWhole(m_strRoot + "/agent"), HasSubstr("requests sent: 1, answers: 0"));
    const std::vector<std::string> lines = Lines(ReadWhole(m_strRoot + "/live"));
    EXPECT_EQ(lines.size(), 3U);
    for (const std::string& strLine : lines) {
        const auto record = nlohmann::json::parse(strLine);
        EXPECT_EQ(record["name"], "beta");
        EXPECT_EQ(record["type"], 1);
        EXPECT_EQ(record["text"], "it's \"live\"");
        EXPECT_EQ(record["appliance"], "127.0.0.1-node07");
    }
}

TEST_F(Receive, GoesOnWhereItWasKilled) {
    const std::string strContent = Pattern(1'000'000);
    constexpr std::size_t kHalf = 400'000;
    const std::string strPart = m_strRoot + "/got/127.0.0.5/" + Yesterday() + ".part";
    const std::string strArguments = "--once --get " + Yesterday();
    std::deque<CFakeSession> sessions;
    const auto start = [&](std::size_t nAllowed) {
        StartReceive(strArguments);
        sessions.clear();
        sessions.emplace_back(m_wPort, "127.0.0.5", strContent).Allow(nAllowed);
    };
    start(kHalf);
    EXPECT_TRUE(CFakeSession::ServeUntil(sessions, [&] {
        std::error_code none;
        return fs::file_size(strPart, none) == kHalf;
    }));
    EXPECT_EQ(Stop(SIGKILL), 128 + SIGKILL);
    start(strContent.size());
    EXPECT_TRUE(CFakeSession::ServeUntil(sessions, [&] { return sessions[0].IsEnded(); }));
    EXPECT_EQ(sessions[0].Starts(), std::vector<std::uint32_t>{kHalf});
    sessions.clear();
    EXPECT_EQ(End(), 0) << Errors();
    EXPECT_TRUE(Got("127.0.0.5/" + Yesterday()) == strContent);
    // What is longer than the file is no part of it.
    fs::remove(m_strRoot + "/got/127.0.0.5/" + Yesterday());
    std::ofstream(strPart) << strContent << "more";
    start(strContent.size());
    EXPECT_TRUE(CFakeSession::ServeUntil(sessions, [&] { return sessions[0].IsEnded(); }));
    EXPECT_EQ(sessions[0].Starts(), (std::vector<std::uint32_t>{1'000'004, 0}));
    sessions.clear();
    EXPECT_EQ(End(), 0) << Errors();
    EXPECT_TRUE(Got("127.0.0.5/" + Yesterday()) == strContent);
}

// All ask before the first byte is sent, so that all are open at once.
TEST_F(Receive, FiveHundredSessionsAtOnceEachGetTheirOwn) {
    constexpr std::size_t kSessions = 500;
    constexpr std::uint64_t kMostKb = 50'000;  // 100 KB each
    const std::string strAll = Pattern(kManyBytes + kSessions);
    const auto content = [&](std::size_t n) {
        return std::string_view(strAll).substr(n, kManyBytes);
    };
    const auto address = [](std::size_t n) {
        return fmt::format("127.1.{}.{}", n / 250, n % 250 + 1);
    };
    StartReceive("--get " + Yesterday());
    std::deque<CFakeSession> sessions;
    for (std::size_t n = 0; n < kSessions; ++n) {
        sessions.emplace_back(m_wPort, address(n), content(n));
    }
    const auto all = [&](const std::function<bool(const CFakeSession&)>& condition) {
        return [&, condition] { return std::all_of(sessions.begin(), sessions.end(), condition); };
    };
    ASSERT_TRUE(CFakeSession::ServeUntil(
        sessions, all([](const CFakeSession& s) { return !s.Starts().empty(); })));
    for (CFakeSession& session : sessions) {
        session.Allow(kManyBytes);
    }
    EXPECT_TRUE(
        CFakeSession::ServeUntil(sessions, all([](const CFakeSession& s) { return s.IsEnded(); })));
    const std::string strStatus = ReadWhole(fmt::format("/proc/{}/status", m_nPid));
    const auto nPeakKb = std::stoull(strStatus.substr(strStatus.find("VmHWM:") + 6));
    std::cout << "peak memory with " << kSessions << " sessions: " << nPeakKb << " KB\n";
    EXPECT_TRUE(!kMeasuresMemory || nPeakKb < kMostKb) << nPeakKb;
    sessions.clear();
    EXPECT_TRUE(ErrorsGet(fmt::format("{}: {}", address(kSessions - 1), Yesterday())));
    EXPECT_EQ(Stop(), 0) << Errors();
    for (std::size_t n = 0; n < kSessions; ++n) {
        ASSERT_TRUE(Got(address(n) + "/" + Yesterday()) == content(n)) << n;
    }
}

TEST_F(Receive, WhatOnePeerDoesCostsThatPeerOnly) {
    const std::string strContent = Pattern(500'000);
    const std::string strLong = Pattern(1'000'001);
    FrameBytes badHead = MakeHello();
    badHead[kUmFrameHeadBytes] ^= 1;
    const struct {
        const char* szAddress;
        FrameBytes bytes;
        const char* szLine;
    } peers[] = {
        {"127.0.0.21", {'G', 'E', 'T', ' ', '/'}, "what came is no message of a service"},
        {"127.0.0.22", {UM_LEAD_BYTE, 0xFF, 0xFF, 0xFF, 0x7F}, "what came is no message"},
        {"127.0.0.23", badHead, "a message with a wrong head"},
        {"127.0.0.24", MakeHello(1), "protocol version 0x1, not 0x20060111"},
        {"127.0.0.25", MakeUploadFrame(UM_HELLO), "message 257 has 8 bytes, not 12"},
        {"127.0.0.26", MakeUploadFrame(UM_INFO), "message 259 came, which was not asked for"},
        {"127.0.0.27", {UM_LEAD_BYTE}, "nothing came for 1 s"},
        {"127.0.0.28", MakeHello(), "a: 1000001 bytes are more than --max-size allows"},
    };
    StartReceive("--silence 1 --max-size 1000000 --get a --set-language english --reboot --yes");
    std::deque<CFakeSession> sessions;
    sessions.emplace_back(m_wPort, "127.0.0.20", strContent);
    for (const auto& peer : peers) {
        sessions.emplace_back(m_wPort, peer.szAddress, strLong, peer.bytes);
    }
    const std::int64_t nBegin = MonotonicMs();
    EXPECT_TRUE(CFakeSession::ServeUntil(sessions, [&] {
        // Never silent, and not done before the others.
        sessions[0].Allow(static_cast<std::size_t>(MonotonicMs() - nBegin) * 50);
        return std::all_of(sessions.begin() + 1, sessions.end(),
                           [](const CFakeSession& session) { return session.IsEnded(); });
    }));
    sessions[0].Allow(strContent.size());
    EXPECT_TRUE(CFakeSession::ServeUntil(sessions,
                                         [&] { return sessions[0].Codes().back() == UM_REBOOT; }));
    EXPECT_THAT(sessions[0].Codes(), testing::ElementsAre(UM_HELLO_ACK, UM_INFO_ACK,
                                                          UM_SET_LANGUAGE, UM_GET_HLOG, UM_REBOOT));
    sessions.clear();
    EXPECT_EQ(Stop(), 1);  // for the file that was too long; strangers do not count
    EXPECT_TRUE(Got("127.0.0.20/a") == strContent);
    std::vector<std::string> failures;
    for (const std::string& strLine : Lines(Errors())) {
        if (strLine.rfind("tarvik-log receive: ", 0) == 0) {
            failures.push_back(strLine);
        }
    }
    EXPECT_EQ(failures.size(), std::size(peers));
    for (const auto& peer : peers) {
        EXPECT_THAT(failures, testing::Contains(testing::StartsWith(fmt::format(
                                  "tarvik-log receive: {}: {}", peer.szAddress, peer.szLine))));
    }
}

// A complete file is trusted, and a part continued, if it was asked for when its day had ended.
TEST_F(Receive, WhatIsFoundOfADayCountsOnceTheDayHadEnded) {
    const std::time_t tNow = std::time(nullptr);
    const std::string strToday = DayNames(1, tNow).front();
    const std::string strPath = m_strRoot + "/" + Yesterday();
    for (const auto& strName : {Yesterday(), Yesterday() + ".part", strToday, strToday + ".new"}) {
        Write("/" + strName, "half");
    }
    EXPECT_TRUE(CDownload::IsHere(m_strRoot, Yesterday()));
    EXPECT_FALSE(CDownload::IsHere(m_strRoot, strToday));
    const std::filesystem::file_time_type tFound = fs::last_write_time(strPath);
    fs::last_write_time(strPath, tFound - std::chrono::hours(24));
    EXPECT_FALSE(CDownload::IsHere(m_strRoot, Yesterday()));
    CDownload part(m_strRoot, Yesterday());
    EXPECT_EQ(part.Start(), 4U);
    EXPECT_THROW(CDownload(m_strRoot, Yesterday()), std::runtime_error);  // it has an owner
    EXPECT_EQ(CDownload(m_strRoot, strToday).Start(), 0U);
}

TEST_F(Receive, WrongUseIsToldInALine) {
    for (const char* szArguments : {"receive",
                                    "receive --port 1 --days 0",
                                    "receive --port 1 --get a/b",
                                    "receive --port 99999",
                                    "receive --port ''",
                                    "receive --port 1 --client 1",
                                    "receive --port 1 --live --client nobody",
                                    "receive --port 1 --live --type 4",
                                    "receive --port 1 --live -o csv",
                                    "receive --port 1 --reboot",
                                    "receive --port 1 --reboot --live --yes",
                                    "receive --port 1 --sessions 2",
                                    "receive --port 1 --set-language latin",
                                    "receive --port 1 --listen here",
                                    "receive --port 1 --max-size much",
                                    "receive --port 1 --max-size -1",
                                    "receive x",
                                    "agent --receiver 1.2.3.4",
                                    "agent --receiver 1.2.3.4:0",
                                    "agent --requests 3",
                                    "agent --node 256",
                                    "agent --source here",
                                    "agent --seconds 0",
                                    "agent --seconds nan",
                                    "agent --seconds 1e300",
                                    "fetch --days none",
                                    "fetch --wait 0",
                                    "fetch --port 0",
                                    "fetch --live"}) {
        const Result result = Run(szArguments);
        EXPECT_EQ(result.nStatus, 2) << szArguments;
        EXPECT_EQ(Lines(result.strErrors).size(), 1U) << szArguments << "\n" << result.strErrors;
        EXPECT_LT(result.strErrors.size(), 200U) << szArguments;
        EXPECT_THAT(result.strErrors, testing::StartsWith("tarvik-log ")) << szArguments;
    }
}

}  // namespace
