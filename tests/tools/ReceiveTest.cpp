// tarvik-log agent, receive and fetch: what arrives is what was there, whoever else connects and
// whenever the receiver is killed.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <ctime>
#include <deque>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <thread>

#include "peers/Agent.h"
#include "peers/LogClient.h"
#include "peers/PeerSocket.h"
#include "peers/Service.h"
#include "support/Socket.h"
#include "tools/PeerSession.h"
#include "tools/ReadingTest.h"
#include "transfer/Download.h"
#include "transfer/UploadMessage.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t kMostKb = UINT64_MAX;  // what they need is not the program's
#else
constexpr std::uint64_t kMostKb = 50'000;  // 100 KB a session, a third of what it is sent
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

using Receive = ReceiveHarness;

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
    EXPECT_TRUE(Read("/got/" + Yesterday()) == strWhole);
    const std::string strToday = DayNames(1, std::time(nullptr)).front();
    EXPECT_EQ(Read("/got/" + strToday), service.ReadFile("/log/" + strToday));
    result = Run(strFetch + "--days 2 --get nothing.log");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strOutput, HasSubstr("1 file (300 bytes), 1 here already"));
    EXPECT_THAT(result.strErrors, HasSubstr("nothing.log: the service has no such file"));
    const CPeerListener agent;
    result = Run(fmt::format("fetch --port {}", agent.Port()));
    EXPECT_THAT(result.strErrors, HasSubstr("a management agent runs there already"));
}

// A service that ends in the handshake, or with it, gets no answer out to the agent.
TEST_F(Receive, FetchEndsWhenTheSessionDoesNotGetThroughItsHandshake) {
    const std::uint16_t wPort = CPeerListener().Port();
    const pid_t nPid = Start(fmt::format("fetch --port {} --wait 0.5", wPort), "fetch");
    CUniqueFd service;
    ASSERT_TRUE(WaitUntil([&] {
        service = Connect("127.0.0.1", wPort);
        return service.IsOpen();
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
    {
        const CFakeSession session(LoadLe16(pPort), "127.0.0.1", "", {});
        std::this_thread::sleep_for(std::chrono::seconds(1));  // the wait passes meanwhile
    }
    EXPECT_EQ(End(nPid), 1);
    EXPECT_THAT(Read("/fetch.errors"), HasSubstr("starts no session"));
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
    EXPECT_TRUE(WaitUntil([&] {
        for (const auto& [nIndex, nType] : {ClientAndType{1, 0}, {1, 1}, {0, 1}}) {
            client.Send(MakeRecord(nIndex, nType, "it's \"live\""));
        }
        return Lines(Read("/live")).size() == 3;
    }));
    EXPECT_EQ(EndReceive(), 0) << Errors();
    EXPECT_EQ(End(nAgent, SIGTERM), 0);
    EXPECT_THAT(Read("/agent"), HasSubstr("requests sent: 1, answers: 0"));
    for (const std::string& strLine : Lines(Read("/live"))) {
        const auto record = nlohmann::json::parse(strLine);
        EXPECT_EQ(record["name"], "beta");
        EXPECT_EQ(record["type"], 1);
        EXPECT_EQ(record["text"], "it's \"live\"");
        EXPECT_EQ(record["appliance"], "127.0.0.1-node07");
    }
}

TEST_F(Receive, GoesOnWhereItWasKilled) {
    const std::string strContent = Pattern(1'000'000);
    constexpr std::size_t kPart = 400'000;
    const std::string strFile = m_strRoot + "/got/127.0.0.5/" + Yesterday();
    std::optional<CFakeSession> session;
    const auto start = [&] {
        StartReceive("--once --get " + Yesterday());
        session.emplace(m_wPort, "127.0.0.5", strContent);
        EXPECT_TRUE(session->Answer(UM_GET_HLOG));
    };
    const auto finish = [&] {
        session->SendFile();
        EXPECT_TRUE(session->IsEnded());
        session.reset();  // the receiver waits for that
        EXPECT_EQ(EndReceive(), 0) << Errors();
        EXPECT_TRUE(ReadWhole(strFile) == strContent);
    };
    start();
    session->SendFile(kPart);
    EXPECT_TRUE(WaitUntil([&] { return ReadWhole(strFile + ".part").size() == kPart; }));
    EXPECT_EQ(EndReceive(SIGKILL), 128 + SIGKILL);
    start();
    EXPECT_EQ(session->Starts(), std::vector<std::uint32_t>{kPart});
    finish();
    // What is longer than the file is no part of it.
    fs::remove(strFile);
    std::ofstream(strFile + ".part") << strContent << "more";
    start();
    EXPECT_TRUE(session->Answer(UM_GET_HLOG));
    EXPECT_EQ(session->Starts(), (std::vector<std::uint32_t>{1'000'004, 0}));
    finish();
}

// All ask before the first byte is sent, so that all are open at once.
TEST_F(Receive, FiveHundredSessionsAtOnceEachGetTheirOwn) {
    constexpr std::size_t kSessions = 500;
    constexpr std::size_t kBytes = 300'000;
    const std::string strAll = Pattern(kBytes + kSessions);
    const auto content = [&](std::size_t n) { return std::string_view(strAll).substr(n, kBytes); };
    const auto address = [](std::size_t n) {
        return fmt::format("127.1.{}.{}", n / 250, n % 250 + 1);
    };
    StartReceive("--get " + Yesterday());
    std::deque<CFakeSession> sessions;
    for (std::size_t n = 0; n < kSessions; ++n) {
        sessions.emplace_back(m_wPort, address(n), content(n));
    }
    for (CFakeSession& session : sessions) {
        ASSERT_TRUE(session.Answer(UM_GET_HLOG));
    }
    for (const std::size_t nSent : {kBytes / 3, kBytes}) {
        for (CFakeSession& session : sessions) {
            session.SendFile(nSent);
        }
    }
    for (CFakeSession& session : sessions) {
        ASSERT_TRUE(session.IsEnded());
    }
    sessions.clear();  // the receiver waits for that
    EXPECT_TRUE(ErrorsGet(fmt::format("{}: {}", address(kSessions - 1), Yesterday())));
    const std::string strStatus = ReadWhole(fmt::format("/proc/{}/status", m_nPid));
    const auto nPeakKb = std::stoull(strStatus.substr(strStatus.find("VmHWM:") + 6));
    EXPECT_LT(nPeakKb, kMostKb);
    EXPECT_EQ(EndReceive(SIGTERM), 0) << Errors();
    for (std::size_t n = 0; n < kSessions; ++n) {
        ASSERT_TRUE(Read("/got/" + address(n) + "/" + Yesterday()) == content(n)) << n;
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
    CFakeSession good(m_wPort, "127.0.0.20", strContent);
    EXPECT_TRUE(good.Answer(UM_GET_HLOG));
    std::deque<CFakeSession> sessions;
    for (const auto& peer : peers) {
        sessions.emplace_back(m_wPort, peer.szAddress, strLong, peer.bytes);
    }
    EXPECT_TRUE(sessions.back().Answer(UM_GET_HLOG));
    std::size_t nSent = 0;
    for (CFakeSession& session : sessions) {
        do {  // never silent, and not done before the others
            good.SendFile(nSent += 1000);
        } while (!session.IsEnded(20) && nSent < strContent.size());
    }
    good.SendFile();
    EXPECT_TRUE(good.Answer(UM_REBOOT));
    EXPECT_THAT(good.Codes(), testing::ElementsAre(UM_HELLO_ACK, UM_INFO_ACK, UM_SET_LANGUAGE,
                                                   UM_GET_HLOG, UM_REBOOT));
    EXPECT_EQ(EndReceive(SIGTERM), 1);  // for the file that was too long; strangers do not count
    EXPECT_TRUE(Read("/got/127.0.0.20/a") == strContent);
    for (const auto& peer : peers) {
        EXPECT_THAT(Errors(), HasSubstr(fmt::format("tarvik-log receive: {}: {}", peer.szAddress,
                                                    peer.szLine)));
    }
    EXPECT_THAT(Errors(), testing::Not(HasSubstr("receive: 127.0.0.20")));
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

}  // namespace
