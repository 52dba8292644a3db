// Upload sessions of the real service: their bytes, what ends them and how the agent is told,
// files, live records, language, reboot, and receivers that stop, vanish or are stuck.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdlib>
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

// A service with its agent, a receiver that takes little at a time, and /hislog/big.
class Upload : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directory(m_Service.Path("/bin"));
        m_Service.SetEnvironment("PATH", m_Service.Path("/bin:") + std::getenv("PATH"));
        // the real one would wait for all that others write
        fs::create_symlink("/bin/true", m_Service.Path("/bin/sync"));
        ReplaceProgram("reboot");
        m_Service.WriteFile("/hislog/big", Pattern(kPatternBytes));
        fs::resize_file(m_Service.Path("/hislog/big"), kBigBytes);
        ASSERT_TRUE(m_Service.Start(true)) << m_Service.Trace();
        m_Agent.Register();
    }
    void TearDown() override { EXPECT_TRUE(m_Service.Pid() == 0 || m_Service.Stop() == 0); }

    // Puts a program in place of the one that the service would run. It notes its name, and does
    // not end while there is a file "hang".
    void ReplaceProgram(const std::string& strName) const {
        m_Service.WriteFile("/bin/" + strName,
                            "#!/bin/sh\n"
                            "echo ${0##*/} >> \"$TARVIK_ROOT/runs\"\n"
                            "while [ -e \"$TARVIK_ROOT/hang\" ]; do sleep 0.05; done\n");
        fs::permissions(m_Service.Path("/bin/" + strName), fs::perms::owner_all);
    }
    bool AwaitRuns(const std::string& strNames) const {
        return WaitUntil([&] { return m_Service.ReadFile("/runs") == strNames; });
    }

    // A new session, taken to the given state.
    CReceiverSession Open(Phase ePhase, std::uint32_t dwId = 1) {
        CReceiverSession session = OpenSession(m_Agent, m_Receiver, dwId);
        session.AwaitHello();
        if (ePhase >= kInfo) {
            session.SendHelloAck(kHelloAccepted, 0xFFFFFFFF);  // a version is no signed number
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
    CReceiverSession OpenLive() {
        CReceiverSession session = Open(kReady);
        SubscribeToAll(session);
        return session;
    }

    // What the agent is told next.
    Answer Told(int nLimitMs = kPeerLimitMs) {
        const auto answer = m_Agent.ReceiveAnswer(nLimitMs);
        return answer ? Answer(answer->dwId, answer->dwResult) : Answer();
    }
    // It was told no more until now, if the sessions that ended are gone.
    void ExpectNothingTold() {
        RequestSession(m_Agent, 0xFFFFFFFF, kNobody);
        EXPECT_EQ(Told(), Answer(0xFFFFFFFF, kNoConnect));
    }

    CAgent m_Agent;
    CService m_Service{TARVIK_LOGD, m_Agent.Port()};
    CReceiver m_Receiver{0, 4096};
};

// A message whose body is filled up with zeros.
std::string Message(std::uint16_t wCode, std::size_t nPayload, std::string strBody) {
    strBody.resize(nPayload - kUmBodyOffset);
    const PeerBytes frame = MakeUploadFrame(wCode, strBody.data(), strBody.size());
    return {frame.begin(), frame.end()};
}

struct Exchange {
    std::string strReceiver;  // sends this with one write
    std::string strService;   // answers with this
    bool bRecord = false;     // the first is a record that a program sends
};

// One of every message; the head and the scrambling of a frame are those of the three that stand
// here byte for byte. The second conversation is told the language that the first one has set.
std::vector<Exchange> Conversation(bool bSecond) {
    const std::string strRecord = Hex("441958260700000002000000d90703070e050900686900");
    const std::string strValue = Hex("78563412");
    std::string strTable(400, '\0');
    strTable[4 * 7 + 2] = 1;
    return {
        {"", Hex("f111000000c2c23d3dcfc3c3c3d2c2c5e3")},
        {Hex("f112000000c1c23e3dcec3c3c3c2c3c3c3dc"),
         Message(259, 30,
                 Hex("c1c2c3c4d1d2d3d4e1e2e3e4e5e6e7e800" + std::string(bSecond ? "01" : "00") +
                     "ff270000"))},
        {Hex("f10e000000c7c2383dcac3c3c3c3") + Message(277, 408, strTable) + Message(279, 9, "\1") +
             Message(273, 12, strValue),
         Message(274, 42, strValue + "Canceld of get history log")},
        {strRecord, Message(278, 31, strRecord), true},
        {Message(261, 113, Hex("ff616263") + std::string(97, '\0') + Hex("02000000")),
         Message(262, 13, Hex("05000000")) + "cde"},
        {Message(280, 8, ""), ""},
    };
}

TEST_F(Upload, SpeaksByteForByteHoweverTheBytesCome) {
    m_Service.WriteFile("/hislog/abc", "abcde");
    CLogClient program(m_Service.RecordPort());
    const AgentRequest request{.wPort = m_Receiver.Port(),
                               .dwInfo1 = 0xC4C3C2C1,
                               .dwInfo2 = 0xD4D3D2D1,
                               .info3{0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8}};
    for (const bool bByteByByte : {false, true}) {
        m_Agent.Send(MakeHlogRequest(1, request));
        CReceiverSession session = m_Receiver.Accept().value();
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
    EXPECT_TRUE(AwaitRuns("reboot\nreboot\n"));
}

struct EndCase {
    std::string strName;
    Phase ePhase;
    std::string strBytes;   // sent in that state
    std::uint32_t nResult;  // that the agent is told; 0: none
};

// Adds what ends a session in that state: messages of a wrong length, in a wrong state, or that no
// receiver sends, and bytes that are no frame.
void AddEnds(std::vector<EndCase>& cases, Phase ePhase) {
    const std::uint32_t nResult = ePhase <= kInfo ? std::uint32_t{kNoHandshake} : 0;
    const struct {
        std::uint16_t wCode;
        std::size_t nPayload;
        std::set<Phase> phases;  // that accept it
    } messages[] = {
        {258, 13, {kHello}},  {260, 9, {kInfo}},
        {261, 113, {kReady}}, {273, 12, {kReady, kSending}},
        {277, 408, {kReady}}, {279, 9, {kReady}},
        {280, 8, {}},  // a reboot ends what it came in
        {257, 12, {}},        {65535, 12, {}},
    };
    for (const auto& [wCode, nPayload, phases] : messages) {
        for (const std::size_t nLen : {nPayload - 1, nPayload, nPayload + 1}) {
            if (nLen >= kUmBodyOffset && (nLen != nPayload || phases.count(ePhase) == 0)) {
                cases.push_back({fmt::format("message {} of {} bytes", wCode, nLen), ePhase,
                                 Message(wCode, nLen, Hex("010000001f")), nResult});
            }
        }
    }
    // One bit is wrong: of the check's low and high byte, the inner length.
    for (const auto& [nOffset, nBit] : {std::pair(7U, 1), {8U, 0x80}, {9U, 1}, {12U, 1}}) {
        std::string strFrame = Message(273, 12, "");
        strFrame[nOffset] = static_cast<char>(strFrame[nOffset] ^ nBit);
        cases.push_back({fmt::format("byte {}", nOffset), ePhase, strFrame, nResult});
    }
    cases.push_back({"601 bytes announced", ePhase, Hex("f159020000"), nResult});
}

TEST_F(Upload, EndsAtWhatItDoesNotAcceptAndTellsTheAgentWhy) {
    const auto HelloAck = [](const char* szBody) { return Message(258, 13, Hex(szBody)); };
    std::vector<EndCase> cases = {
        {"refused", kHello, HelloAck("0000000020"), kRefused},
        {"version 0x1EFFFFFF", kHello, HelloAck("01ffffff1e"), kRefused},
        {"neither, version high", kHello, HelloAck("020000001f"), kNoHandshake},
        {"info refused", kInfo, Message(260, 9, "\1"), 0},
        {"info neither", kInfo, Message(260, 9, "\2"), kNoHandshake},
    };
    for (const Phase ePhase : {kHello, kInfo, kReady, kSending}) {
        AddEnds(cases, ePhase);
    }
    std::uint32_t dwId = 0;
    for (const auto& [strName, ePhase, strBytes, nResult] : cases) {
        SCOPED_TRACE(fmt::format("{} in state {}", strName, static_cast<int>(ePhase)));
        CReceiverSession session = Open(ePhase, ++dwId);
        SendBytes(session.Connection(), strBytes);
        EXPECT_NE(session.AwaitEnd(5000), PeerEnd::kSilence);  // before any guard
        ASSERT_TRUE(AwaitSlot(m_Service, 0, false));
        if (nResult != 0) {
            EXPECT_EQ(Told(), Answer(dwId, nResult));
        }
    }
    ExpectNothingTold();
    // the four that were in order, one in each state
    EXPECT_TRUE(AwaitRuns("reboot\nreboot\nreboot\nreboot\n"));
}

// All guards side by side: each state has its time to itself, and those behind the handshake have
// no limit.
TEST_F(Upload, GivesEachStepItsTimeAndNoMore) {
    const CReceiver full;
    const auto fillers = FillQueue(full.Port());
    // Guards of 10 and 20 s begin later than these.
    const CDeadline eight(8000);
    const CDeadline sixteen(16000);
    const CDeadline nineteen(19000);
    RequestSession(m_Agent, 1, full.Port());
    ASSERT_TRUE(AwaitSlot(m_Service, 0, true));
    const CReceiverSession silentInHello = Open(kHello, 2);
    const CReceiverSession silentInInfo = Open(kInfo, 3);
    CReceiverSession slow = Open(kHello, 4);
    CReceiverSession sending = Open(kSending, 5);
    EXPECT_EQ(Told(eight.LeftMs()), Answer());  // nobody was given up yet
    slow.SendHelloAck();
    slow.AwaitInfo();
    const std::set<Answer> both = {{2, kNoHandshake}, {3, kNoHandshake}};
    EXPECT_EQ((std::set{Told(), Told()}), both);
    EXPECT_EQ(Told(sixteen.LeftMs()), Answer());
    slow.SendInfoAck();
    EXPECT_EQ(Told(nineteen.LeftMs()), Answer());
    EXPECT_EQ(Told(), Answer(1, kNoConnect));
    ExpectReady(slow);
    EXPECT_GT(Cancelled(sending).size(), 0U);
}

struct FileCase {
    std::string strName;
    std::uint32_t dwStart;
    std::uint8_t byResult;
    std::string strWhole;
};

TEST_F(Upload, ServesPlainFilesOfTheTwoDirectoriesFromAnyStart) {
    const std::string strHistory = m_Service.Path("/hislog/");
    const std::string strLong(99, 'n');
    fs::create_directory(strHistory + "directory");
    const std::map<std::string, std::string> files = {{"/hislog/both", "history"},
                                                      {"/log/both", "today"},
                                                      {"/log/directory", "behind a directory"},
                                                      {"/hislog/directory/file", "file"},
                                                      {"/hislog/" + strLong, "long"},
                                                      {"/hislog/empty", ""},
                                                      {"/hislog/wrapping", ""}};
    for (const auto& [strPath, strContent] : files) {
        m_Service.WriteFile(strPath, strContent);
    }
    fs::resize_file(strHistory + "wrapping", 0x100000000ULL + 1000);
    fs::create_symlink(m_Service.Path("/etc/tarvik/log/log.conf"), strHistory + "out");
    EXPECT_EQ(mkfifo((strHistory + "fifo").c_str(), 0666), 0);
    m_Service.WriteFile("/hislog/.moving-20010101", "a part");
    std::vector<FileCase> cases = {
        {"both", 0, 0, "history"},
        {"both", 6, 0, "history"},
        {"directory", 0, 0, "behind a directory"},
        {strLong, 0, 0, "long"},
        {strLong + "n", 0, 0, "long"},  // the last character is cut off
        {"both", 7, 2, ""},
        {"both", 0x80000000, 2, ""},
        {"big", kBigBytes, 2, ""},
        {strHistory + "both", 0, 1, ""},
    };
    for (const char* szName : {"empty", "wrapping", "missing", "", ".", "..", "directory/file",
                               "../hislog/both", "/both", "out", "fifo", ".moving-20010101"}) {
        cases.push_back({szName, 0, 1, ""});
    }
    CReceiverSession session = Open(kReady);
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
    fs::rename(strHistory, m_Service.Path("/away"));
    m_Service.WriteFile("/hislog", "no directory any more");
    EXPECT_EQ(session.GetFile("both").byResult, 3);
    ExpectReady(session);
}

TEST_F(Upload, SendsAFileAsLongAsItWasUnlessItIsCancelledOrShrinks) {
    const std::string strQueued = Pattern(150000);  // fits into the session's ring
    const std::string strGrowing = Pattern(3000000);
    m_Service.WriteFile("/hislog/queued", strQueued);
    m_Service.WriteFile("/hislog/growing", strGrowing);
    CReceiverSession session = Open(kSending);
    std::string strGot = session.ReceiveFile(100000);
    strGot += Cancelled(session);
    EXPECT_GT(strGot.size(), 200000U);  // what was queued comes first
    EXPECT_TRUE(strGot == Pattern(strGot.size()));
    ExpectReady(session);
    EXPECT_EQ(session.GetFile("queued", 7).byResult, 0);
    EXPECT_TRUE(Cancelled(session) == strQueued.substr(7));
    EXPECT_EQ(session.GetFile("growing").byResult, 0);
    std::ofstream(m_Service.Path("/hislog/growing"), std::ios::app) << "more";
    EXPECT_TRUE(session.ReceiveFile(strGrowing.size()) == strGrowing);
    ExpectReady(session);

    // A file that shrinks ends the session that sends it, and none else.
    CReceiverSession other = Open(kReady, 2);
    EXPECT_EQ(session.GetFile("big").byResult, 0);
    fs::resize_file(m_Service.Path("/hislog/big"), 1000);
    strGot = session.ReceiveFile(kPatternBytes);
    EXPECT_EQ(session.End(), PeerEnd::kClosed);
    EXPECT_TRUE(strGot == Pattern(strGot.size()));
    ASSERT_TRUE(AwaitSlot(m_Service, 0, false));
    ExpectReady(other);
    ExpectNothingTold();
}

TEST_F(Upload, ForwardsWhatIsSubscribedWhileReadyAndNothingElse) {
    CLogClient program(m_Service.RecordPort());
    CReceiverSession session = Open(kReady);
    std::uint32_t nStored = 0;
    const std::vector<ClientAndType> keys = {{0, 0}, {6, 2}, {7, 1}, {7, 2}, {7, 3}, {99, 3}};
    const auto SendOfAll = [&] {
        for (const auto& [nIndex, nType] : keys) {
            program.Send(MakeRecord(nIndex, nType, "all"));
            ++nStored;
        }
        EXPECT_TRUE(WaitUntil([&] { return CountIn(TodayPath(m_Service)) == nStored; }));
    };
    const auto NextKey = [&] {
        const LogRecord record = session.ReceiveRecord().value();
        return ClientAndType(record.nIndex, record.nType);
    };
    SendOfAll();  // nothing is subscribed
    SubscribeToAll(session);
    SubscriptionTable table;
    table.fill(2);  // means nothing
    table[4 * 7 + 2] = 1;
    session.Subscribe(table);  // in place of the one before
    ExpectReady(session);
    SendOfAll();
    SubscribeToAll(session);
    EXPECT_EQ(NextKey(), ClientAndType(7, 2));
    program.Send(MakeRecord(INT32_MIN, 0, "stored only"));
    program.Send(MakeRecord(-1, 3, "stored only"));
    program.Send(MakeRecord(0, -1, "stored only"));
    program.Send(MakeRecord(0, kRealTimeType, "not stored"));
    nStored += 3;
    SendOfAll();
    for (const ClientAndType& key : keys) {
        EXPECT_EQ(NextKey(), key);
    }
    EXPECT_EQ(session.GetFile("big").byResult, 0);
    SendOfAll();  // stored only, while a file is sent
    Cancelled(session);
    program.Send(MakeRecord(5, 1, "ready again"));
    EXPECT_EQ(RecordText(session.ReceiveRecord().value()), "ready again");
}

// Two wait for the reboot, are subscribed to everything and take nothing; two do not read. The
// fifth gets every record.
TEST_F(Upload, IsHeldUpNeitherByARebootThatHangsNorByReceiversThatDoNotRead) {
    m_Service.WriteFile("/hang", "");
    CReceiverSession rebooting[] = {OpenLive(), OpenLive()};
    CReceiverSession slow = OpenLive();
    CReceiverSession greedy = Open(kReady);
    m_Receiver = CReceiver();  // one that takes what comes
    CReceiverSession quick = OpenLive();
    rebooting[0].Reboot();
    rebooting[1].Reboot();
    ASSERT_TRUE(AwaitRuns("reboot\nreboot\n"));
    CLogClient program(m_Service.RecordPort());
    const auto Text = [](std::uint32_t n) { return std::to_string(n) + std::string(200, 'x'); };
    std::uint32_t nRead = 0;
    // More than can wait between threads, and in the 4 MiB that the kernel may hold for a reader.
    constexpr std::uint32_t kRecords = 16000;
    for (std::uint32_t n = 1; n <= kRecords; ++n) {
        program.Send(MakeRecord(0, 0, Text(n)));
        greedy.Cancel(n);
        for (; n % 100 == 0 && nRead < n; ++nRead) {
            ASSERT_EQ(RecordText(quick.ReceiveRecord().value()), Text(nRead + 1));
        }
    }
    // What comes now is older records in order, after the gap the newest, each whole.
    std::uint32_t nLast = 0;
    std::uint32_t nGot = 0;
    for (; nLast != kRecords + 1; ++nGot) {
        auto record = slow.ReceiveRecord(100);
        if (!record) {
            program.Send(MakeRecord(0, 0, Text(kRecords + 1)));
            record = slow.ReceiveRecord();
        }
        const auto nNumber =
            static_cast<std::uint32_t>(std::stoul(std::string(RecordText(*record))));
        EXPECT_EQ(RecordText(*record), Text(nNumber));
        EXPECT_GT(nNumber, nLast);
        nLast = nNumber;
    }
    EXPECT_GT(nGot, 600U);  // the session's ring alone holds that many
    EXPECT_LT(nGot, kRecords);

    fs::remove(m_Service.Path("/hang"));
    EXPECT_EQ(rebooting[0].AwaitEnd(), PeerEnd::kClosed);
    ASSERT_TRUE(AwaitSlot(m_Service, 0, false) && AwaitSlot(m_Service, 1, false));
    CReceiverSession next = OpenLive();      // in the first one's slot
    program.Send(MakeRecord(0, 0, "next"));  // and nothing that was meant for that one
    EXPECT_EQ(RecordText(next.ReceiveRecord().value()), "next");
    ExpectNothingTold();
}

// A session that alone is subscribed may hold every slot of the queue but those that answers keep.
TEST_F(Upload, KeepsWhatASessionWaitsFor) {
    constexpr std::uint32_t kRecords = 4800;
    ReplaceProgram("cp");
    CReceiverSession session = OpenLive();
    const CReceiverSession idle = Open(kReady);  // it wants nothing, so it takes nothing away
    m_Service.WriteFile("/hang", "");
    session.SetLanguage(1);
    ASSERT_TRUE(AwaitRuns("cp\n"));
    CNumberedSender sender(m_Service.RecordPort(), TodayPath(m_Service));
    ASSERT_TRUE(sender.Send(1, kRecords));
    fs::remove(m_Service.Path("/hang"));
    for (std::uint32_t n = 1; n <= kRecords; ++n) {
        ASSERT_EQ(RecordText(session.ReceiveRecord().value()), CNumberedSender::Text(n));
    }
}

TEST_F(Upload, StopsWhileSessionsConnectSendAndWaitForPrograms) {
    const CReceiver full;
    const auto fillers = FillQueue(full.Port());
    RequestSession(m_Agent, 1, full.Port());
    ASSERT_TRUE(AwaitSlot(m_Service, 0, true));
    ReplaceProgram("cp");
    m_Service.WriteFile("/hang", "");
    const CReceiverSession sending = Open(kSending);
    CReceiverSession hello = Open(kHello);
    CReceiverSession rebooting = Open(kReady);
    CReceiverSession language = Open(kReady);
    rebooting.Reboot();
    ASSERT_TRUE(AwaitRuns("reboot\n"));
    language.SetLanguage(1);
    ASSERT_TRUE(AwaitRuns("reboot\ncp\n"));
    hello.SendHelloAck();  // the answer waits for the configuration file that cp holds
    EXPECT_EQ(m_Service.Stop(), 0);
}

}  // namespace
