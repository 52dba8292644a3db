// Upload sessions of the real service: their bytes, what ends them and how the agent is told,
// files, live records, language, reboot, and receivers that stop, vanish or are stuck.
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <future>
#include <iostream>
#include <set>

#include "core/MonoClock.h"
#include "core/Socket.h"
#include "system/SystemTest.h"
#include "tools/Agent.h"
#include "tools/Receiver.h"

namespace {

namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kStopLimitMs = 5000;  // the thread sanitizer rests for a second at the end
#else
constexpr int kStopLimitMs = 1000;
#endif

constexpr std::uint32_t kBigBytes = 0x7FFFFFFF;  // the longest file that a session sends
constexpr std::size_t kPatternBytes = std::size_t{8} * 1024 * 1024;  // its front; zeros follow
constexpr std::uint32_t kCancelValue = 0x12345678;

using Answer = std::pair<std::uint32_t, std::uint32_t>;  // request and result; zeros: none came
// Results: why a session failed.
constexpr std::uint32_t kNoConnect = 2;
constexpr std::uint32_t kRefused = 3;
constexpr std::uint32_t kNoHandshake = 5;

// Bytes among which no two places look alike.
std::string Pattern(std::size_t nBytes) {
    std::string strBytes(nBytes, '\0');
    for (std::size_t i = 0; i < nBytes; ++i) {
        strBytes[i] = static_cast<char>((static_cast<std::uint32_t>(i) * 2654435761U) >> 24U);
    }
    return strBytes;
}

SubscriptionTable Everything() {
    SubscriptionTable table;
    table.fill(1);
    return table;
}

void SendBytes(CReceiverSession& session, const std::string& strBytes) {
    session.Connection().Send({strBytes.begin(), strBytes.end()});
}

// A session is ready and has nothing else to say than live records.
void ExpectReady(CReceiverSession& session) {
    session.Cancel(kCancelValue);
    const UploadMessage ack = session.Await(UM_CANCEL_ACK);
    EXPECT_EQ(LoadLe32(&ack.payload.at(kCancelValueOffset)), kCancelValue);
}

// Cancels a file under way and returns what came of it in front of the answer.
std::string Cancelled(CReceiverSession& session) {
    session.Cancel(kCancelValue);
    return session.ReceiveCancelled(kCancelValue, kPatternBytes);
}

// The states of a session, in the order in which it goes through them.
enum Phase : std::uint8_t { kHello, kInfo, kReady, kSending };
constexpr Phase kPhases[] = {kHello, kInfo, kReady, kSending};
constexpr const char* kPhaseNames[] = {"hello", "info", "ready", "sending"};

// A service with its agent, a receiver that takes little at a time, and /hislog/big.
struct Uploads {
    explicit Uploads(bool bStart = true) {
        fs::create_directory(service.Path("/bin"));
        service.SetEnvironment("PATH", service.Path("/bin:") + std::getenv("PATH"));
        ReplaceProgram("sync", "");  // it would wait for all that others write
        ReplaceProgram("reboot");
        service.WriteFile("/hislog/big", Pattern(kPatternBytes));
        fs::resize_file(service.Path("/hislog/big"), kBigBytes);
        if (bStart) {
            Start();
        }
    }
    ~Uploads() {
        if (service.Pid() != 0) {
            EXPECT_EQ(service.Stop(), 0);
        }
    }
    Uploads(const Uploads&) = delete;
    Uploads& operator=(const Uploads&) = delete;

    void Start() {
        if (!service.Start(true)) {
            throw std::runtime_error("no service: " + service.Trace());
        }
        agent.Register();
    }
    void ExpectStop(const std::string& strWhen) {
        const std::int64_t nStart = MonotonicMs();
        EXPECT_EQ(service.Stop(), 0) << strWhen;
        const std::int64_t nMs = MonotonicMs() - nStart;
        std::cout << "stopped after " << nMs << " ms: " << strWhen << "\n";
        EXPECT_LT(nMs, kStopLimitMs) << strWhen;
    }

    // Puts a program in place of the one that the service would run. By default it notes its name,
    // and does not end while there is a file "hang".
    void ReplaceProgram(const std::string& strName,
                        const std::string& strScript =
                            "echo ${0##*/} >> \"$TARVIK_ROOT/runs\"\n"
                            "while [ -e \"$TARVIK_ROOT/hang\" ]; do sleep 0.05; done\n") const {
        service.WriteFile("/bin/" + strName, "#!/bin/sh\n" + strScript);
        fs::permissions(service.Path("/bin/" + strName), fs::perms::owner_all);
    }
    bool AwaitRuns(const std::string& strNames) const {
        return WaitUntil([&] { return service.ReadFile("/runs") == strNames; });
    }

    void Request(std::uint32_t dwId, std::uint16_t wPort) {
        agent.Send(MakeHlogRequest(dwId, AgentRequest{.wPort = wPort}));
    }
    // A new session, taken to the given state.
    CReceiverSession Open(Phase ePhase, std::uint32_t dwId = 1) {
        Request(dwId, receiver.Port());
        CReceiverSession session = receiver.Accept().value();
        session.AwaitHello();
        if (ePhase >= kInfo) {
            session.SendHelloAck();
            session.AwaitInfo();
        }
        if (ePhase >= kReady) {
            session.SendInfoAck();
            ExpectReady(session);
        }
        if (ePhase == kSending) {
            EXPECT_EQ(session.GetFile("big"), (UploadFileAnswer{kBigBytes, 0}));
        }
        return session;
    }
    bool AwaitSession(int nSlot, bool bThere) const {
        const std::string strThread = "logd.upload" + std::to_string(nSlot);
        return WaitUntil([&] { return (service.Thread(strThread) != 0) == bThere; });
    }
    std::ptrdiff_t Descriptors() const {
        const fs::directory_iterator entries(fmt::format("/proc/{}/fd", service.Pid()));
        return std::distance(begin(entries), end(entries));
    }
    std::uint32_t Stored() const { return CountIn(TodayPath(service)); }

    // What the agent is told next.
    Answer Told(int nLimitMs = kPeerLimitMs) {
        const auto answer = agent.ReceiveAnswer(nLimitMs);
        return answer ? Answer(answer->dwId, answer->dwResult) : Answer();
    }
    // All that it was told until now, if the sessions that ended are gone.
    std::map<std::uint32_t, std::uint32_t> AllTold() {
        std::map<std::uint32_t, std::uint32_t> results;
        const Answer last(0xFFFFFFFF, kNoConnect);
        Request(last.first, 1);  // a port that no program listens on
        for (Answer answer; (answer = Told()) != last && answer != Answer();) {
            EXPECT_TRUE(results.insert(answer).second) << answer.first;
        }
        return results;
    }

    CAgent agent;
    CService service{TARVIK_LOGD, agent.Port()};
    CReceiver receiver{0, 4096};
};

std::string Hex(const std::string& strHex) {
    std::string strBytes;
    for (std::size_t i = 0; i < strHex.size(); i += 2) {
        strBytes += static_cast<char>(std::stoi(strHex.substr(i, 2), nullptr, 16));
    }
    return strBytes;
}

// The frame around a payload, which is in hexadecimal digits in front of strRest.
std::string Frame(const std::string& strHex, const std::string& strRest = "") {
    std::string strPayload = Hex(strHex) + strRest;
    const std::size_t nFrame = strPayload.size() + 5;
    for (char& c : strPayload) {
        c = static_cast<char>(c ^ 0xC3);
    }
    return Hex(fmt::format("f1{:02x}{:02x}0000", nFrame & 0xFF, nFrame >> 8)) + strPayload;
}

struct Exchange {
    std::string strReceiver;  // sends this with one write
    std::string strService;   // answers with this
    bool bRecord = false;     // the first is a record that a program sends
};

// One of every message, as they are on the wire.
std::vector<Exchange> Conversation() {
    const std::string strRecord = "441958260700000002000000d90703070e050900686900";
    std::string strTable(400, '\0');
    strTable[4 * 7 + 2] = 1;
    return {
        {"", Hex("f111000000c2c23d3dcfc3c3c3d2c2c5e3")},
        {Hex("f112000000c1c23e3dcec3c3c3c2c3c3c3dc"),
         Frame("0301fcfe1e000000c1c2c3c4d1d2d3d4e1e2e3e4e5e6e7e80000ff270000")},
        {Hex("f10e000000c7c2383dcac3c3c3c3") + Frame("1501eafe98010000", strTable) +
             Frame("1701e8fe0900000000") + Frame("1101eefe0c00000078563412"),
         Frame("1201edfe2a00000078563412", std::string("Canceld of get history log\0\0\0\0", 30))},
        {Hex(strRecord), Frame("1601e9fe1f000000" + strRecord), true},
        {Frame("0501fafe71000000ff", "abc" + std::string(97, '\0') + Hex("02000000")),
         Frame("0601f9fe0d0000000500000000") + "cde"},
        {Frame("1801e7fe08000000"), ""},
    };
}

TEST(Upload, SpeaksByteForByteHoweverTheBytesCome) {
    Uploads uploads;
    uploads.service.WriteFile("/hislog/abc", "abcde");
    CLogClient program(uploads.service.RecordPort());
    const AgentRequest request{.wPort = uploads.receiver.Port(),
                               .dwInfo1 = 0xC4C3C2C1,
                               .dwInfo2 = 0xD4D3D2D1,
                               .info3{0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8}};
    for (const bool bByteByByte : {false, true}) {
        uploads.agent.Send(MakeHlogRequest(1, request));
        CReceiverSession session = uploads.receiver.Accept().value();
        for (auto [strReceiver, strService, bRecord] : Conversation()) {
            if (bRecord) {
                strReceiver.resize(kRecordBytes, 'x');  // behind the end of the text
                program.SendBytes(strReceiver.data(), strReceiver.size());
            } else if (bByteByByte) {
                session.Connection().SendByteByByte({strReceiver.begin(), strReceiver.end()});
            } else {
                SendBytes(session, strReceiver);
            }
            EXPECT_EQ(session.ReceiveFile(strService.size()), strService);
        }
        EXPECT_EQ(session.AwaitEnd(), PeerEnd::kClosed);
    }
    EXPECT_TRUE(uploads.AwaitRuns("reboot\nreboot\n"));
}

struct EndCase {
    std::string strName;
    Phase ePhase;
    std::string strBytes;   // sent in that state
    std::uint32_t nResult;  // that the agent is told; 0: none
    void (CPeerSocket::*pfnThen)() = nullptr;
};

// A message whose body is filled up with zeros.
std::string Message(std::uint16_t wCode, std::size_t nPayload, std::string strBody) {
    strBody.resize(nPayload - kUmBodyOffset);
    const PeerBytes frame = MakeUploadFrame(wCode, strBody.data(), strBody.size());
    return {frame.begin(), frame.end()};
}

// What ends a session in that state.
void AddCases(std::vector<EndCase>& cases, Phase ePhase) {
    const std::uint32_t nResult = ePhase <= kInfo ? kNoHandshake : 0;
    const auto AddMessage = [&](std::uint16_t wCode, std::size_t nLen) {
        cases.push_back({fmt::format("message {} of {} bytes", wCode, nLen), ePhase,
                         Message(wCode, nLen, Hex("010000001f")), nResult});
    };
    const struct {
        std::uint16_t wCode;
        std::size_t nPayload;
        std::set<Phase> phases;  // that accept it
    } messages[] = {
        {258, 13, {kHello}},  {260, 9, {kInfo}},
        {261, 113, {kReady}}, {273, 12, {kReady, kSending}},
        {277, 408, {kReady}}, {279, 9, {kReady}},
        {280, 8, {}},  // a reboot ends what it came in
    };
    for (const auto& [wCode, nPayload, phases] : messages) {
        for (const std::size_t nLen : {nPayload - 1, nPayload, nPayload + 1}) {
            if (nLen >= kUmBodyOffset && (nLen != nPayload || phases.count(ePhase) == 0)) {
                AddMessage(wCode, nLen);
            }
        }
    }
    const std::uint16_t strangers[] = {0, 256, 257, 259, 262, 263, 272, 274, 278, 281, 65535};
    for (const std::uint16_t wCode : strangers) {
        AddMessage(wCode, 12);
    }
    // One bit is wrong: of the lead byte, the check's low and high byte, the inner length.
    for (const auto& [nOffset, nBit] : {std::pair(0U, 1), {7U, 1}, {8U, 0x80}, {9U, 1}, {12U, 1}}) {
        std::string strFrame = Message(273, 12, "");
        strFrame[nOffset] = static_cast<char>(strFrame[nOffset] ^ nBit);
        cases.push_back({fmt::format("byte {}", nOffset), ePhase, strFrame, nResult});
    }
    for (const char* szLength : {"0c000000", "59020000", "00000000", "ffffffff"}) {
        cases.push_back({szLength, ePhase, Hex(std::string("f1") + szLength), nResult});
    }
    cases.push_back(
        {"close amid a frame", ePhase, Hex("f158020000c3"), nResult, &CPeerSocket::Close});
    cases.push_back({"reset", ePhase, "", nResult, &CPeerSocket::Reset});
}

TEST(Upload, EndsAtWhatItDoesNotAcceptAndTellsTheAgentWhy) {
    const auto HelloAck = [](const char* szBody) { return Message(258, 13, Hex(szBody)); };
    std::vector<EndCase> cases = {
        {"refused", kHello, HelloAck("0000000020"), kRefused},
        {"version 0x1EFFFFFF", kHello, HelloAck("01ffffff1e"), kRefused},
        {"version 0", kHello, HelloAck("01"), kRefused},
        {"neither, version high", kHello, HelloAck("020000001f"), kNoHandshake},
        {"neither, version low", kHello, HelloAck("ff"), kNoHandshake},
        {"info refused", kInfo, Message(260, 9, "\1"), 0},
        {"info neither", kInfo, Message(260, 9, "\2"), kNoHandshake},
    };
    for (const Phase ePhase : kPhases) {
        AddCases(cases, ePhase);
    }
    Uploads uploads;
    const std::ptrdiff_t nDescriptors = uploads.Descriptors();
    std::uint32_t dwId = 0;
    for (const auto& [strName, ePhase, strBytes, nResult, pfnThen] : cases) {
        SCOPED_TRACE(strName + " in " + kPhaseNames[ePhase]);
        CReceiverSession session = uploads.Open(ePhase, ++dwId);
        SendBytes(session, strBytes);
        if (pfnThen != nullptr) {
            (session.Connection().*pfnThen)();
        }
        EXPECT_NE(session.AwaitEnd(5000), PeerEnd::kSilence);  // before any guard
        ASSERT_TRUE(uploads.AwaitSession(0, false));
    }
    auto results = uploads.AllTold();
    dwId = 0;
    for (const EndCase& test : cases) {
        EXPECT_EQ(results[++dwId], test.nResult) << test.strName << kPhaseNames[test.ePhase];
    }
    // the four that were in order, one in each state
    EXPECT_TRUE(uploads.AwaitRuns("reboot\nreboot\nreboot\nreboot\n"));
    EXPECT_TRUE(WaitUntil([&] { return uploads.Descriptors() == nDescriptors; }));
    CReceiverSession session = uploads.Open(kHello);
    session.SendHelloAck(kHelloAccepted, 0xFFFFFFFF);  // a version is no signed number
    session.AwaitInfo();
}

// A listener with room for one connection, which is taken: all others that connect hang.
class CFullListener {
public:
    CFullListener() {
        sockaddr_in address{};
        socklen_t nLen = sizeof(address);
        EXPECT_EQ(listen(m_Listening.Get(), 0), 0);  // the kernel picks a port
        EXPECT_EQ(getsockname(m_Listening.Get(), reinterpret_cast<sockaddr*>(&address), &nLen), 0);
        m_wPort = ntohs(address.sin_port);
        EXPECT_TRUE(ConnectSocket(m_Filler.Get(), kLoopback, m_wPort));
    }
    std::uint16_t Port() const { return m_wPort; }

private:
    CUniqueFd m_Listening{MakeSocket(SOCK_STREAM)};
    CUniqueFd m_Filler{MakeSocket(SOCK_STREAM)};
    std::uint16_t m_wPort = 0;
};

// All guards side by side: each state has its time to itself, and those behind the handshake have
// no limit. What the wall clock does meanwhile does not matter.
TEST(Upload, GivesEachStepItsTimeAndNoMore) {
    Uploads uploads(false);
    static_cast<void>(uploads.service.FakeClock());  // with a sanitizer it cannot jump
    uploads.service.SetClock("2026-11-15 12:00:00");
    uploads.Start();
    const CFullListener full;
    uploads.Request(1, full.Port());
    ASSERT_TRUE(uploads.AwaitSession(0, true));
    const CReceiverSession silentInHello = uploads.Open(kHello, 2);
    const CReceiverSession silentInInfo = uploads.Open(kInfo, 3);
    CReceiverSession slow = uploads.Open(kHello, 4);
    CReceiverSession sending = uploads.Open(kSending, 5);
    const CDeadline eight(8000);
    const CDeadline fifteen(15500);
    const CDeadline nineteen(19500);
    uploads.service.SetClock("2076-11-15 12:00:00");
    EXPECT_EQ(uploads.Told(1000), Answer());
    uploads.service.SetClock("1970-01-01 00:00:10");
    EXPECT_EQ(uploads.Told(eight.LeftMs()), Answer());  // nobody was given up yet
    slow.SendHelloAck();
    slow.AwaitInfo();
    const std::set<Answer> both = {{2, kNoHandshake}, {3, kNoHandshake}};
    EXPECT_EQ((std::set{uploads.Told(fifteen.LeftMs()), uploads.Told(fifteen.LeftMs())}), both);
    EXPECT_EQ(uploads.Told(fifteen.LeftMs()), Answer());
    slow.SendInfoAck();
    EXPECT_EQ(uploads.Told(nineteen.LeftMs()), Answer());
    EXPECT_EQ(uploads.Told(5000), Answer(1, kNoConnect));
    slow.Subscribe(Everything());
    ExpectReady(slow);
    CLogClient(uploads.service.RecordPort()).Send(MakeRecord(0, 0, "live"));
    EXPECT_TRUE(slow.ReceiveRecord());
    EXPECT_GT(Cancelled(sending).size(), 0U);
}

TEST(Upload, ServesPlainFilesOfTheTwoDirectoriesFromAnyStart) {
    Uploads uploads;
    const CService& service = uploads.service;
    const auto In = [&](const std::string& strName) { return service.Path("/hislog/" + strName); };
    const std::string strLong(99, 'n');
    const std::string strThousand = Pattern(1000);
    fs::create_directory(In("directory"));
    for (const auto& [strPath, strContent] :
         std::map<std::string, std::string>{{"/hislog/both", "history"},
                                            {"/log/both", "today"},
                                            {"/log/today", "today"},
                                            {"/log/directory", "behind a directory"},
                                            {"/hislog/directory/file", "file"},
                                            {"/hislog/" + strLong, "long"},
                                            {"/hislog/thousand", strThousand},
                                            {"/hislog/empty", ""},
                                            {"/hislog/longer", ""},
                                            {"/hislog/wrapping", ""}}) {
        service.WriteFile(strPath, strContent);
    }
    fs::resize_file(In("longer"), kBigBytes + 1ULL);
    fs::resize_file(In("wrapping"), 0x100000000ULL + 1000);
    fs::create_symlink(service.Path("/etc/tarvik/log/log.conf"), In("out"));
    fs::create_symlink(In("both"), In("in"));
    for (const auto& [szName, nMode] :
         {std::pair("fifo", S_IFIFO), std::pair("socket", S_IFSOCK), std::pair("zero", S_IFCHR)}) {
        // only root may make a device; for others there is no such file
        const bool bMade =
            mknod(In(szName).c_str(), static_cast<mode_t>(nMode) | 0666U, makedev(1, 5)) == 0;
        EXPECT_TRUE(bMade || nMode == S_IFCHR);
    }
    struct FileCase {
        std::string strName;
        std::uint32_t dwStart;
        std::uint8_t byResult;
        std::string strWhole;
    };
    std::vector<FileCase> cases = {
        {"thousand", 0, 0, strThousand},
        {"thousand", 1, 0, strThousand},
        {"thousand", 999, 0, strThousand},
        {"both", 0, 0, "history"},
        {"today", 0, 0, "today"},
        {"directory", 0, 0, "behind a directory"},
        {strLong, 0, 0, "long"},
        {strLong + "n", 0, 0, "long"},  // the last character is cut off
        {"big", kBigBytes, 2, ""},
        {In("both"), 0, 1, ""},
    };
    for (const std::uint32_t dwStart : {1000U, 1001U, 0x80000000U, 0xFFFFFFFFU}) {
        cases.push_back({"thousand", dwStart, 2, ""});
    }
    for (const char* szName :
         {"empty", "longer", "wrapping", "missing", "", ".", "..", "directory/file",
          "../hislog/both", "/both", "./both", "both/", "out", "in", "fifo", "socket", "zero"}) {
        cases.push_back({szName, 0, 1, ""});
    }
    CReceiverSession session = uploads.Open(kReady);
    for (const auto& [strName, dwStart, byResult, strWhole] : cases) {
        SCOPED_TRACE(fmt::format("{} from {}", strName, dwStart));
        const UploadFileAnswer answer = session.GetFile(strName, dwStart);
        EXPECT_EQ(answer.byResult, byResult);
        if (answer.byResult == 0) {
            EXPECT_EQ(answer.dwSize, strWhole.size());
            EXPECT_EQ(session.ReceiveFile(answer.dwSize - dwStart), strWhole.substr(dwStart));
        }
        ExpectReady(session);
    }
    EXPECT_EQ(session.GetFile("big", kBigBytes - 2), (UploadFileAnswer{kBigBytes, 0}));
    EXPECT_EQ(session.ReceiveFile(2), std::string(2, '\0'));
    ExpectReady(session);
    fs::rename(service.Path("/hislog"), service.Path("/away"));
    service.WriteFile("/hislog", "no directory any more");
    EXPECT_EQ(session.GetFile("both").byResult, 3);
    ExpectReady(session);
}

// Four receivers take a full day again and again, and one takes the file of today while it grows.
TEST(Upload, SendsAFullDayToFiveReceiversAtOnceWhileRecordsCome) {
    Uploads uploads;
    uploads.receiver = CReceiver();  // one that takes what comes
    const std::string strDay = Pattern(kLogFileUnits * kRecordBytes);
    uploads.service.WriteFile("/hislog/20260101.log", strDay);
    const std::string strToday = TodayPath(uploads.service);
    const std::string strTodayName = fs::path(strToday).filename();
    CNumberedSender sender(uploads.service.RecordPort(), strToday);
    ASSERT_TRUE(sender.Send(0, 100));
    std::deque<CReceiverSession> sessions;
    for (std::uint32_t dwId = 1; dwId <= 5; ++dwId) {
        sessions.push_back(uploads.Open(kReady, dwId));
    }
    std::vector<std::future<void>> takers;
    for (std::size_t n = 0; n < 4; ++n) {
        takers.push_back(std::async(std::launch::async, [&strDay, &session = sessions[n]] {
            for (const std::uint32_t dwStart : {0U, 1U, 300U, 65535U, 204800U, 3071699U}) {
                EXPECT_EQ(session.GetFile("20260101.log", dwStart), (UploadFileAnswer{3071700, 0}));
                EXPECT_TRUE(session.ReceiveFile(3071700 - dwStart) == strDay.substr(dwStart));
            }
        }));
    }
    std::vector<std::string> copies;  // of today's file
    takers.push_back(std::async(std::launch::async, [&] {
        for (int n = 0; n < 20; ++n) {
            const UploadFileAnswer answer = sessions[4].GetFile(strTodayName);
            copies.push_back(sessions[4].ReceiveFile(answer.dwSize));
            EXPECT_EQ(copies.back().size(), answer.dwSize);
        }
    }));
    std::uint32_t nSent = 100;
    for (std::future<void>& taker : takers) {
        while (nSent < 9000 &&
               taker.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
            ASSERT_TRUE(sender.Send(nSent, 100));
            nSent += 100;
        }
        taker.get();
    }
    EXPECT_EQ(uploads.Stored(), nSent);
    const std::string strFinal = uploads.service.ReadFile("/log/" + strTodayName);
    for (const std::string& strCopy : copies) {
        ASSERT_GE(strCopy.size(), 101 * kRecordBytes);
        // all but the counter in front, and what there was of the record that was being written
        const std::size_t nBytes = strCopy.size() / kRecordBytes * kRecordBytes - kRecordBytes;
        EXPECT_TRUE(strCopy.substr(kRecordBytes, nBytes) == strFinal.substr(kRecordBytes, nBytes));
    }
}

TEST(Upload, CancelsBehindTheBytesThatAreQueued) {
    Uploads uploads;
    const std::string strQueued = Pattern(150000);  // fits into the session's ring
    uploads.service.WriteFile("/hislog/queued", strQueued);
    CReceiverSession session = uploads.Open(kReady);
    const std::ptrdiff_t nDescriptors = uploads.Descriptors();
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(session.GetFile("big").byResult, 0);
        std::string strGot = session.ReceiveFile(100000);
        strGot += Cancelled(session);
        EXPECT_GT(strGot.size(), 200000U);
        EXPECT_TRUE(strGot == Pattern(strGot.size()));
        ExpectReady(session);
        EXPECT_EQ(session.GetFile("queued", 7).byResult, 0);
        EXPECT_TRUE(Cancelled(session) == strQueued.substr(7));
    }
    EXPECT_EQ(uploads.Descriptors(), nDescriptors);

    // A file that shrinks ends the session that sends it, and none else.
    CReceiverSession other = uploads.Open(kReady, 2);
    EXPECT_EQ(session.GetFile("big").byResult, 0);
    fs::resize_file(uploads.service.Path("/hislog/big"), 1000);
    const std::string strGot = session.ReceiveFile(kPatternBytes);
    EXPECT_EQ(session.End(), PeerEnd::kClosed);
    EXPECT_TRUE(strGot == Pattern(strGot.size()));
    ASSERT_TRUE(uploads.AwaitSession(0, false));
    ExpectReady(other);
    EXPECT_TRUE(uploads.AllTold().empty());
}

TEST(Upload, ForwardsWhatIsSubscribedWhileReadyAndNothingElse) {
    Uploads uploads;
    CLogClient program(uploads.service.RecordPort());
    CReceiverSession session = uploads.Open(kReady);
    std::uint32_t nSent = 0;
    const auto SendOfAll = [&] {
        for (int n = 0; n < 400; ++n) {
            program.Send(MakeRecord(n / 4, n % 4, "all"));
            ++nSent;
            if (n % 40 == 39) {
                ASSERT_TRUE(WaitUntil([&] { return uploads.Stored() == nSent; }));
            }
        }
    };
    const auto NextKey = [&] {
        const LogRecord record = session.ReceiveRecord().value();
        return ClientAndType(record.nIndex, record.nType);
    };
    ASSERT_NO_FATAL_FAILURE(SendOfAll());  // nothing is subscribed
    session.Subscribe(Everything());
    SubscriptionTable table;
    table.fill(2);  // means nothing
    table[4 * 7 + 2] = 1;
    session.Subscribe(table);  // in place of the one before
    ExpectReady(session);
    ASSERT_NO_FATAL_FAILURE(SendOfAll());
    session.Subscribe(Everything());
    ExpectReady(session);
    EXPECT_EQ(NextKey(), ClientAndType(7, 2));
    program.Send(MakeRecord(INT32_MIN, 0, "stored only"));
    program.Send(MakeRecord(-1, 3, "stored only"));
    program.Send(MakeRecord(0, -1, "stored only"));
    program.Send(MakeRecord(0, kRealTimeType, "not stored"));
    nSent += 3;
    ASSERT_NO_FATAL_FAILURE(SendOfAll());
    for (int n = 0; n < 400; ++n) {
        ASSERT_EQ(NextKey(), ClientAndType(n / 4, n % 4));
    }

    const std::map<std::string, std::size_t> texts = {
        // with how much of each is forwarded
        {"", 0},
        {std::string("cut\0off", 7), 3},
        {std::string(278, 'a'), 278},
        {std::string(279, 'b'), 279},
        {std::string(280, 'c'), 279},
    };
    for (const auto& [strText, nForwarded] : texts) {
        LogRecord record = MakeRecord(99, 3, strText);
        record.byReserved = 0xEE;
        program.Send(record);
        ++nSent;
        record.szText[nForwarded] = '\0';
        const auto frame = MakeUploadFrame(UM_RTLOG, &record, kRecordHeadBytes + nForwarded + 1);
        EXPECT_EQ(session.ReceiveFile(frame.size()), std::string(frame.begin(), frame.end()));
    }

    EXPECT_EQ(session.GetFile("big").byResult, 0);
    ASSERT_NO_FATAL_FAILURE(SendOfAll());  // stored only, while a file is sent
    Cancelled(session);
    program.Send(MakeRecord(5, 1, "ready again"));
    EXPECT_EQ(RecordText(session.ReceiveRecord().value()), "ready again");
}

TEST(Upload, SetsTheLanguageOfTheAppliance) {
    Uploads uploads;
    const CService& service = uploads.service;
    const std::string strConf = "/etc/tarvik/log/log.conf";
    const std::string strOriginal = service.ReadFile(strConf);
    std::deque<CLogClient> programs;
    for (int n = 0; n < 3; ++n) {
        programs.emplace_back(service.RecordPort(), service.ControlPort(n));
    }
    CReceiverSession session = uploads.Open(kReady);
    // Sets it and looks at what is stored, what a new session reports, and whether programs are
    // told.
    const auto Set = [&](std::uint8_t byLanguage, const std::string& strStored,
                         std::uint8_t byReported, bool bTold) {
        SCOPED_TRACE(static_cast<int>(byLanguage));
        session.SetLanguage(byLanguage);
        ExpectReady(session);
        EXPECT_EQ(service.ReadFile(strConf), strStored);
        CReceiverSession next = uploads.Open(kHello, 2);
        next.SendHelloAck();
        EXPECT_EQ(next.AwaitInfo().byLanguage, byReported);
        const LogcCtrlFrame expected{0x26581947, 20, 0, 10, byLanguage, 0};
        for (CLogClient& program : programs) {
            const auto frame = program.ReceiveControl(0);
            EXPECT_EQ(frame.has_value(), bTold);
            EXPECT_TRUE(!frame || std::memcmp(&*frame, &expected, 20) == 0);
        }
    };
    const std::string strEnglish = strOriginal + "[local]\nLANGUAGE = English\n";
    const std::string strChinese = strOriginal + "[local]\nLANGUAGE = Chinese\n";
    Set(1, strEnglish, 1, true);
    Set(2, strEnglish, 1, false);
    Set(0, strChinese, 0, true);
    Set(255, strChinese, 0, false);
    EXPECT_EQ(service.ReadFile("/config" + strConf), strChinese);
    Set(1, strEnglish, 1, true);
    EXPECT_EQ(service.ReadFile("/config" + strConf), strEnglish);
    fs::create_directory(service.Path(strConf + ".new"));  // where the new file would be written
    Set(0, strEnglish, 1, false);
    fs::remove(service.Path(strConf));
    Set(1, "", 0, false);
}

// Two sessions that wait for the reboot are subscribed to everything, and take nothing.
TEST(Upload, ServesOthersWhileARebootHangs) {
    Uploads uploads;
    uploads.receiver = CReceiver();  // one that takes what comes
    uploads.service.WriteFile("/hang", "");
    std::deque<CReceiverSession> sessions;
    const auto OpenSubscribed = [&] {
        sessions.push_back(uploads.Open(kReady));
        sessions.back().Subscribe(Everything());
        ExpectReady(sessions.back());
    };
    CNumberedSender sender(uploads.service.RecordPort(), TodayPath(uploads.service));
    std::uint32_t nSent = 0;
    const auto SendToAll = [&](std::uint32_t nCount) {  // but the first two
        for (const std::uint32_t nEnd = nSent + nCount; nSent < nEnd; nSent += 100) {
            ASSERT_TRUE(sender.Send(nSent, 100));
            for (std::size_t i = 2; i < sessions.size(); ++i) {
                for (std::uint32_t n = nSent; n < nSent + 100; ++n) {
                    const LogRecord record = sessions[i].ReceiveRecord().value();
                    ASSERT_EQ(RecordText(record), CNumberedSender::Text(n));
                }
            }
        }
    };
    for (int n = 0; n < 4; ++n) {
        OpenSubscribed();
    }
    sessions[0].Reboot();
    sessions[1].Reboot();
    ASSERT_TRUE(uploads.AwaitRuns("reboot\nreboot\n"));
    ASSERT_NO_FATAL_FAILURE(SendToAll(7000));
    EXPECT_EQ(uploads.Stored(), nSent);
    OpenSubscribed();
    EXPECT_EQ(sessions[4].GetFile("big", kBigBytes - 1).byResult, 0);
    EXPECT_EQ(sessions[4].ReceiveFile(1).size(), 1U);
    ASSERT_NO_FATAL_FAILURE(SendToAll(500));

    fs::remove(uploads.service.Path("/hang"));
    EXPECT_EQ(sessions[0].AwaitEnd(), PeerEnd::kClosed);
    ASSERT_TRUE(uploads.AwaitSession(0, false) && uploads.AwaitSession(1, false));
    OpenSubscribed();  // in the first one's slot: gets nothing that was meant for it
    ASSERT_NO_FATAL_FAILURE(SendToAll(500));
    EXPECT_TRUE(uploads.AllTold().empty());
}

TEST(Upload, IsNotHeldUpByReceiversThatDoNotRead) {
    Uploads uploads;
    CReceiverSession live = uploads.Open(kReady, 1);
    live.Subscribe(Everything());
    ExpectReady(live);
    CReceiverSession greedy = uploads.Open(kReady, 2);
    const CReceiverSession sending = uploads.Open(kSending, 3);
    CLogClient program(uploads.service.RecordPort());
    const std::string strPad(250, 'x');
    constexpr std::uint32_t kRecords = 9000;
    for (std::uint32_t n = 1; n <= kRecords; ++n) {
        program.Send(MakeRecord(0, 0, std::to_string(n) + strPad));
        greedy.Cancel(n);
        if (n % 100 == 0) {
            ASSERT_TRUE(WaitUntil([&] { return uploads.Stored() == n; }));
        }
    }
    // What comes now is older records in order, after the gap the newest, each whole.
    std::uint32_t nLast = 0;
    std::uint32_t nGot = 0;
    for (std::string strText; strText != "last";) {
        const auto record = live.ReceiveRecord(100);
        strText = record ? RecordText(*record) : "";
        if (!record) {
            program.Send(MakeRecord(0, 0, "last"));
        } else if (strText != "last") {
            const auto nNumber = static_cast<std::uint32_t>(std::stoul(strText));
            EXPECT_GT(nNumber, nLast);
            EXPECT_EQ(strText, std::to_string(nNumber) + strPad);
            nLast = nNumber;
            ++nGot;
        }
    }
    EXPECT_GT(nGot, 600U);  // the session's ring alone holds that many
    EXPECT_LT(nGot, kRecords);
    uploads.ExpectStop("two that do not read");
}

TEST(Upload, StopsAtOnceInEveryState) {
    for (const Phase ePhase : kPhases) {
        Uploads uploads;
        CReceiverSession session = uploads.Open(ePhase);
        uploads.ExpectStop(kPhaseNames[ePhase]);
        EXPECT_NE(session.AwaitEnd(), PeerEnd::kSilence);
    }
    Uploads five;
    const CFullListener full;
    five.Request(1, full.Port());
    ASSERT_TRUE(five.AwaitSession(0, true));
    std::deque<CReceiverSession> sessions;
    for (const Phase ePhase : kPhases) {
        sessions.push_back(five.Open(ePhase));
    }
    five.ExpectStop("one that connects, and one of each");

    for (const std::string strProgram : {"reboot", "cp"}) {
        Uploads stuck;
        stuck.ReplaceProgram(strProgram);
        stuck.service.WriteFile("/hang", "");
        CReceiverSession other = stuck.Open(kHello);
        CReceiverSession session = stuck.Open(kReady);
        strProgram == "cp" ? session.SetLanguage(1) : session.Reboot();
        ASSERT_TRUE(stuck.AwaitRuns(strProgram + "\n"));
        other.SendHelloAck();  // the answer waits for the configuration file that cp holds
        stuck.ExpectStop(strProgram + " hangs");
    }
}

}  // namespace
