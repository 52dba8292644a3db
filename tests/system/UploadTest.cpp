// Upload sessions of the real service: their bytes, what ends them and how the agent is told,
// files, live records, language, reboot, and receivers that stop, vanish or are stuck.
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <deque>
#include <filesystem>
#include <set>

#include "system/SystemTest.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kBigBytes = 0x7FFFFFFF;  // the longest file that a session sends
constexpr std::size_t kPatternBytes = std::size_t{8} * 1024 * 1024;  // its front; zeros follow

using Answer = std::pair<std::uint32_t, std::uint32_t>;  // request and result; zeros: none came

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
    // szClock: where the service's clock stands; null: it is the real one.
    explicit Uploads(const char* szClock = nullptr) {
        fs::create_directory(service.Path("/bin"));
        service.SetEnvironment("PATH", service.Path("/bin:") + std::getenv("PATH"));
        ReplaceProgram("sync", "");  // it would wait for all that others write
        ReplaceProgram("reboot");
        service.WriteFile("/hislog/big", Pattern(kPatternBytes));
        fs::resize_file(service.Path("/hislog/big"), kBigBytes);
        if (szClock != nullptr && service.FakeClock()) {
            service.SetClock(szClock);
        }
        if (!service.Start(true)) {
            throw std::runtime_error("no service: " + service.Trace());
        }
        agent.Register();
    }
    ~Uploads() {
        if (service.Pid() != 0) {
            EXPECT_EQ(service.Stop(), 0);
        }
    }
    Uploads(const Uploads&) = delete;
    Uploads& operator=(const Uploads&) = delete;

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

    // A new session, taken to the given state.
    CReceiverSession Open(Phase ePhase, std::uint32_t dwId = 1) {
        CReceiverSession session = OpenSession(agent, receiver, dwId);
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
        RequestSession(agent, last.first, kNobody);
        for (Answer answer; (answer = Told()) != last && answer != Answer();) {
            EXPECT_TRUE(results.insert(answer).second) << answer.first;
        }
        return results;
    }

    CAgent agent;
    CService service{TARVIK_LOGD, agent.Port()};
    CReceiver receiver{0, 4096};
};

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

// One of every message, as they are on the wire. The second conversation is told the language that
// the first one has set.
std::vector<Exchange> Conversation(bool bSecond) {
    const std::string strRecord = "441958260700000002000000d90703070e050900686900";
    std::string strTable(400, '\0');
    strTable[4 * 7 + 2] = 1;
    return {
        {"", Hex("f111000000c2c23d3dcfc3c3c3d2c2c5e3")},
        {Hex("f112000000c1c23e3dcec3c3c3c2c3c3c3dc"),
         Frame("0301fcfe1e000000c1c2c3c4d1d2d3d4e1e2e3e4e5e6e7e800" +
               std::string(bSecond ? "01" : "00") + "ff270000")},
        {Hex("f10e000000c7c2383dcac3c3c3c3") + Frame("1501eafe98010000", strTable) +
             Frame("1701e8fe0900000001") + Frame("1101eefe0c00000078563412"),
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
        for (auto [strReceiver, strService, bRecord] : Conversation(bByteByByte)) {
            if (bRecord) {
                strReceiver.resize(kRecordBytes, 'x');  // behind the end of the text
                program.SendBytes(strReceiver.data(), strReceiver.size());
            } else if (bByteByByte) {
                session.Connection().SendByteByByte({strReceiver.begin(), strReceiver.end()});
            } else {
                SendBytes(session.Connection(), strReceiver);
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

// Messages of a wrong length, in a wrong state, or that no receiver sends.
void AddMessages(std::vector<EndCase>& cases, Phase ePhase, std::uint32_t nResult) {
    const struct {
        std::uint16_t wCode;
        std::size_t nPayload;
        std::set<Phase> phases;  // that accept it
    } messages[] = {
        {258, 13, {kHello}},  {260, 9, {kInfo}},
        {261, 113, {kReady}}, {273, 12, {kReady, kSending}},
        {277, 408, {kReady}}, {279, 9, {kReady}},
        {280, 8, {}},  // a reboot ends what it came in
        {0, 12, {}},          {256, 12, {}},
        {257, 12, {}},        {259, 30, {}},
        {262, 13, {}},        {263, 12, {}},
        {272, 12, {}},        {274, 42, {}},
        {278, 31, {}},        {281, 8, {}},
        {65535, 12, {}},
    };
    for (const auto& [wCode, nPayload, phases] : messages) {
        for (const std::size_t nLen : {nPayload - 1, nPayload, nPayload + 1}) {
            if (nLen >= kUmBodyOffset && (nLen != nPayload || phases.count(ePhase) == 0)) {
                cases.push_back({fmt::format("message {} of {} bytes", wCode, nLen), ePhase,
                                 Message(wCode, nLen, Hex("010000001f")), nResult});
            }
        }
    }
}

// Bytes that are no frame, and connections that end.
void AddBytes(std::vector<EndCase>& cases, Phase ePhase, std::uint32_t nResult) {
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
        const std::uint32_t nResult = ePhase <= kInfo ? 5 : 0;
        AddMessages(cases, ePhase, nResult);
        AddBytes(cases, ePhase, nResult);
    }
    Uploads uploads;
    const std::ptrdiff_t nDescriptors = SteadyDescriptors(uploads.service);
    std::map<std::uint32_t, std::uint32_t> expected;
    std::int64_t nWarmKib = 0;
    std::uint32_t dwId = 0;
    for (const auto& [strName, ePhase, strBytes, nResult, pfnThen] : cases) {
        SCOPED_TRACE(strName + " in " + kPhaseNames[ePhase]);
        CReceiverSession session = uploads.Open(ePhase, ++dwId);
        SendBytes(session.Connection(), strBytes);
        if (pfnThen != nullptr) {
            (session.Connection().*pfnThen)();
        }
        EXPECT_NE(session.AwaitEnd(5000), PeerEnd::kSilence);  // before any guard
        ASSERT_TRUE(AwaitSlot(uploads.service, 0, false));
        if (nResult != 0) {
            expected[dwId] = nResult;
        }
        nWarmKib = dwId == cases.size() / 3 ? MemoryKib(uploads.service) : nWarmKib;
    }
    EXPECT_EQ(uploads.AllTold(), expected);
    // the four that were in order, one in each state
    EXPECT_TRUE(uploads.AwaitRuns("reboot\nreboot\nreboot\nreboot\n"));
    EXPECT_EQ(SteadyDescriptors(uploads.service), nDescriptors);
    if (!kSanitized && !CService::IsEmulated()) {  // which keep what is freed
        EXPECT_LT(MemoryKib(uploads.service), nWarmKib + 128);
    }
    CReceiverSession session = uploads.Open(kHello);
    session.SendHelloAck(kHelloAccepted, 0xFFFFFFFF);  // a version is no signed number
    session.AwaitInfo();
}

// All guards side by side: each state has its time to itself, and those behind the handshake have
// no limit. What the wall clock does meanwhile does not matter.
TEST(Upload, GivesEachStepItsTimeAndNoMore) {
    Uploads uploads("2026-11-15 12:00:00");  // with a sanitizer it does not jump
    const CReceiver full;
    const auto fillers = FillQueue(full.Port());
    // Guards of 10 and 20 s begin later than these.
    const CDeadline eight(8000);
    const CDeadline sixteen(16000);
    const CDeadline nineteen(19000);
    RequestSession(uploads.agent, 1, full.Port());
    ASSERT_TRUE(AwaitSlot(uploads.service, 0, true));
    const CReceiverSession silentInHello = uploads.Open(kHello, 2);
    const CReceiverSession silentInInfo = uploads.Open(kInfo, 3);
    CReceiverSession slow = uploads.Open(kHello, 4);
    CReceiverSession sending = uploads.Open(kSending, 5);
    uploads.service.SetClock("2076-11-15 12:00:00");
    EXPECT_EQ(uploads.Told(1000), Answer());
    uploads.service.SetClock("1970-01-01 00:00:10");
    EXPECT_EQ(uploads.Told(eight.LeftMs()), Answer());  // nobody was given up yet
    slow.SendHelloAck();
    slow.AwaitInfo();
    const std::set<Answer> both = {{2, kNoHandshake}, {3, kNoHandshake}};
    EXPECT_EQ((std::set{uploads.Told(), uploads.Told()}), both);
    EXPECT_EQ(uploads.Told(sixteen.LeftMs()), Answer());
    slow.SendInfoAck();
    EXPECT_EQ(uploads.Told(nineteen.LeftMs()), Answer());
    EXPECT_EQ(uploads.Told(), Answer(1, kNoConnect));
    SubscribeToAll(slow);
    CLogClient(uploads.service.RecordPort()).Send(MakeRecord(0, 0, "live"));
    EXPECT_TRUE(slow.ReceiveRecord());
    EXPECT_GT(Cancelled(sending).size(), 0U);
}

// Everything that a name can find.
void MakeFiles(const CService& service) {
    const auto In = [&](const std::string& strName) { return service.Path("/hislog/" + strName); };
    fs::create_directory(In("directory"));
    for (const auto& [strPath, strContent] :
         std::map<std::string, std::string>{{"/hislog/both", "history"},
                                            {"/log/both", "today"},
                                            {"/log/today", "today"},
                                            {"/log/directory", "behind a directory"},
                                            {"/hislog/directory/file", "file"},
                                            {"/hislog/" + std::string(99, 'n'), "long"},
                                            {"/hislog/thousand", Pattern(1000)},
                                            {"/hislog/empty", ""},
                                            {"/hislog/longer", ""},
                                            {"/hislog/wrapping", ""}}) {
        service.WriteFile(strPath, strContent);
    }
    fs::resize_file(In("longer"), kBigBytes + 1ULL);
    fs::resize_file(In("wrapping"), 0x100000000ULL + 1000);
    fs::create_symlink(service.Path("/etc/tarvik/log/log.conf"), In("out"));
    fs::create_symlink(In("both"), In("in"));
    EXPECT_EQ(mkfifo(In("fifo").c_str(), 0666), 0);
    // only root may make a device; for others there is no such file
    static_cast<void>(mknod(In("zero").c_str(), S_IFCHR | 0666U, makedev(1, 5)));
}

TEST(Upload, ServesPlainFilesOfTheTwoDirectoriesFromAnyStart) {
    Uploads uploads;
    MakeFiles(uploads.service);
    struct FileCase {
        std::string strName;
        std::uint32_t dwStart;
        std::uint8_t byResult;
        std::string strWhole;
    };
    std::vector<FileCase> cases = {
        {"thousand", 0, 0, Pattern(1000)},
        {"thousand", 999, 0, Pattern(1000)},
        {"both", 0, 0, "history"},
        {"today", 0, 0, "today"},
        {"directory", 0, 0, "behind a directory"},
        {std::string(99, 'n'), 0, 0, "long"},
        {std::string(100, 'n'), 0, 0, "long"},  // the last character is cut off
        {"big", kBigBytes, 2, ""},
        {uploads.service.Path("/hislog/both"), 0, 1, ""},
    };
    for (const std::uint32_t dwStart : {1000U, 1001U, 0x80000000U, 0xFFFFFFFFU}) {
        cases.push_back({"thousand", dwStart, 2, ""});
    }
    for (const char* szName :
         {"empty", "longer", "wrapping", "missing", "", ".", "..", "directory/file",
          "../hislog/both", "/both", "./both", "both/", "out", "in", "fifo", "zero"}) {
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
    fs::rename(uploads.service.Path("/hislog"), uploads.service.Path("/away"));
    uploads.service.WriteFile("/hislog", "no directory any more");
    EXPECT_EQ(session.GetFile("both").byResult, 3);
    ExpectReady(session);
}

TEST(Upload, SendsAFileAsLongAsItWasUnlessItIsCancelledOrShrinks) {
    Uploads uploads;
    const std::string strQueued = Pattern(150000);  // fits into the session's ring
    const std::string strGrowing = Pattern(3000000);
    uploads.service.WriteFile("/hislog/queued", strQueued);
    uploads.service.WriteFile("/hislog/growing", strGrowing);
    CReceiverSession session = uploads.Open(kReady);
    const std::ptrdiff_t nDescriptors = SteadyDescriptors(uploads.service);
    for (int n = 0; n < 3; ++n) {
        EXPECT_EQ(session.GetFile("big").byResult, 0);
        std::string strGot = session.ReceiveFile(100000);
        strGot += Cancelled(session);
        EXPECT_GT(strGot.size(), 200000U);  // what was queued comes first
        EXPECT_TRUE(strGot == Pattern(strGot.size()));
        ExpectReady(session);
        EXPECT_EQ(session.GetFile("queued", 7).byResult, 0);
        EXPECT_TRUE(Cancelled(session) == strQueued.substr(7));
    }
    EXPECT_EQ(session.GetFile("growing").byResult, 0);
    std::ofstream(uploads.service.Path("/hislog/growing"), std::ios::app) << "more";
    EXPECT_TRUE(session.ReceiveFile(strGrowing.size()) == strGrowing);
    ExpectReady(session);
    EXPECT_EQ(SteadyDescriptors(uploads.service), nDescriptors);

    // A file that shrinks ends the session that sends it, and none else.
    CReceiverSession other = uploads.Open(kReady, 2);
    EXPECT_EQ(session.GetFile("big").byResult, 0);
    fs::resize_file(uploads.service.Path("/hislog/big"), 1000);
    const std::string strGot = session.ReceiveFile(kPatternBytes);
    EXPECT_EQ(session.End(), PeerEnd::kClosed);
    EXPECT_TRUE(strGot == Pattern(strGot.size()));
    ASSERT_TRUE(AwaitSlot(uploads.service, 0, false));
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
    SubscribeToAll(session);
    SubscriptionTable table;
    table.fill(2);  // means nothing
    table[4 * 7 + 2] = 1;
    session.Subscribe(table);  // in place of the one before
    ExpectReady(session);
    ASSERT_NO_FATAL_FAILURE(SendOfAll());
    SubscribeToAll(session);
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
    EXPECT_EQ(session.GetFile("big").byResult, 0);
    ASSERT_NO_FATAL_FAILURE(SendOfAll());  // stored only, while a file is sent
    Cancelled(session);
    program.Send(MakeRecord(5, 1, "ready again"));
    EXPECT_EQ(RecordText(session.ReceiveRecord().value()), "ready again");
}

// Sessions that wait for the reboot are subscribed to everything, and take nothing.
TEST(Upload, ServesOthersWhileARebootHangs) {
    Uploads uploads;
    uploads.receiver = CReceiver();  // one that takes what comes
    uploads.service.WriteFile("/hang", "");
    std::deque<CReceiverSession> sessions;
    for (int n = 0; n < 4; ++n) {
        sessions.push_back(uploads.Open(kReady));
        SubscribeToAll(sessions.back());
    }
    sessions[0].Reboot();
    sessions[1].Reboot();
    ASSERT_TRUE(uploads.AwaitRuns("reboot\nreboot\n"));
    CNumberedSender sender(uploads.service.RecordPort(), TodayPath(uploads.service));
    constexpr std::uint32_t kRecords = 7000;  // more than can wait between threads
    for (std::uint32_t n = 0; n < kRecords; ++n) {
        ASSERT_TRUE(n % 100 != 0 || sender.Send(n, 100));
        for (const std::size_t nSession : {2U, 3U}) {
            const LogRecord record = sessions[nSession].ReceiveRecord().value();
            ASSERT_EQ(RecordText(record), CNumberedSender::Text(n));
        }
    }
    fs::remove(uploads.service.Path("/hang"));
    EXPECT_EQ(sessions[0].AwaitEnd(), PeerEnd::kClosed);
    ASSERT_TRUE(AwaitSlot(uploads.service, 0, false) && AwaitSlot(uploads.service, 1, false));
    CReceiverSession next = uploads.Open(kReady);  // in the first one's slot
    SubscribeToAll(next);
    ASSERT_TRUE(sender.Send(kRecords, 1));  // and nothing that was meant for that one
    EXPECT_EQ(RecordText(next.ReceiveRecord().value()), CNumberedSender::Text(kRecords));
    EXPECT_TRUE(uploads.AllTold().empty());
}

TEST(Upload, IsNotHeldUpByReceiversThatDoNotRead) {
    Uploads uploads;
    CReceiverSession live = uploads.Open(kReady, 1);
    SubscribeToAll(live);
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
    for (; nLast != kRecords + 1; ++nGot) {
        auto record = live.ReceiveRecord(100);
        if (!record) {
            program.Send(MakeRecord(0, 0, std::to_string(kRecords + 1) + strPad));
            record = live.ReceiveRecord();
        }
        const auto nNumber = static_cast<std::uint32_t>(std::stoul(RecordText(*record)));
        EXPECT_EQ(RecordText(*record), std::to_string(nNumber) + strPad);
        EXPECT_GT(nNumber, nLast);
        nLast = nNumber;
    }
    EXPECT_GT(nGot, 600U);  // the session's ring alone holds that many
    EXPECT_LT(nGot, kRecords);
}

TEST(Upload, StopsInEveryState) {
    Uploads five;
    const CReceiver full;
    const auto fillers = FillQueue(full.Port());
    RequestSession(five.agent, 1, full.Port());
    ASSERT_TRUE(AwaitSlot(five.service, 0, true));
    std::deque<CReceiverSession> sessions;
    for (const Phase ePhase : kPhases) {
        sessions.push_back(five.Open(ePhase));
    }
    EXPECT_EQ(five.service.Stop(), 0);
    for (CReceiverSession& session : sessions) {
        EXPECT_NE(session.AwaitEnd(), PeerEnd::kSilence);
    }
    for (const std::string strProgram : {"reboot", "cp"}) {
        Uploads stuck;
        stuck.ReplaceProgram(strProgram);
        stuck.service.WriteFile("/hang", "");
        CReceiverSession other = stuck.Open(kHello);
        CReceiverSession session = stuck.Open(kReady);
        strProgram == "cp" ? session.SetLanguage(1) : session.Reboot();
        ASSERT_TRUE(stuck.AwaitRuns(strProgram + "\n"));
        other.SendHelloAck();  // the answer waits for the configuration file that cp holds
        EXPECT_EQ(stuck.service.Stop(), 0) << strProgram;
    }
}

}  // namespace
