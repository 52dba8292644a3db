// The real service and its management agent: the bytes of the command link, what ends it and what
// does not, how it comes back, and what becomes of history requests.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <csignal>
#include <deque>

#include "core/MonoClock.h"
#include "system/SystemTest.h"

namespace {

constexpr std::uint32_t kForeign = 0xC0000201;  // 192.0.2.1, an address of no machine
constexpr int kRetryLimitMs = 5000;             // the service tries every 3 s
constexpr int kSlots = 5;

const std::string kRegistration = Hex("FE 04000000 01 12000000");
const std::string kKeepAlive = Hex("FE 00000000 32");

// The next frame of the service, byte for byte; nothing when there is none.
std::string NextFrame(CPeerSocket& connection) {
    const auto frame = connection.ReceiveFrame(&CBuff::CheckFeFrame).value_or(PeerBytes());
    return {frame.begin(), frame.end()};
}

std::string Encoded(const AgentFrame& frame) {
    const PeerBytes bytes = frame.Encode();
    return {bytes.begin(), bytes.end()};
}

// A service and the agent that it connects to.
struct Link {
    void Start() {
        if (!service.Start() || !agent.Accept()) {
            throw std::runtime_error("no service");
        }
    }
    CPeerSocket& Connection() { return agent.Connection(); }

    static AgentRequest Request(std::uint32_t dwId, std::uint16_t wPort) {
        return {.dwEcho = ~dwId, .wPort = wPort, .wUnused = 0xEEEE, .info3{1, 2, 3}};
    }
    void Send(std::uint32_t dwId, std::uint16_t wPort) {
        agent.Send(MakeHlogRequest(dwId, Request(dwId, wPort)));
    }
    // The next answer is that to Send(dwId, wPort).
    void Expect(std::uint32_t dwId, std::uint16_t wPort, std::uint32_t dwResult) {
        const auto answer = agent.ReceiveAnswer();
        ASSERT_TRUE(answer) << PeerEndText(agent.End());
        EXPECT_EQ(*answer, (AgentAnswer{dwId, Request(dwId, wPort), dwResult})) << answer->dwId;
    }
    // Requests are answered, and none before them will be.
    void ExpectService() {
        for (const std::uint32_t dwId : {0xFFFFFFFE, 0xFFFFFFFF}) {
            Send(dwId, kNobody);
            Expect(dwId, kNobody, kNoConnect);
        }
    }
    // Sends a request that takes the given slot, and accepts its session.
    CReceiverSession Open(std::uint32_t dwId, CReceiver& receiver, int nSlot) {
        Send(dwId, receiver.Port());
        EXPECT_TRUE(AwaitSlot(service, nSlot, true)) << nSlot;
        return receiver.Accept().value();
    }
    // Ends the session of a slot. The intake stores the record after it has posted the answer.
    void End(CReceiverSession& session, int nSlot) {
        session.Connection().Close();
        EXPECT_TRUE(AwaitSlot(service, nSlot, false)) << nSlot;
        CNumberedSender sender(service.RecordPort(), TodayPath(service));
        EXPECT_TRUE(sender.Send(0, 1));
    }

    CAgent agent;
    CService service{TARVIK_LOGD, agent.Port()};
};

TEST(Link, SpeaksByteForByte) {
    Link link;
    link.Start();
    CReceiver receiver;
    const std::string strFill(42, 'A');  // bytes that are carried unread
    const auto Rest = [](int nPort) {    // of a block, behind its first 6 bytes
        return fmt::format("0100007F {:02X}{:02X} B1B2 C1C2C3C4 D1D2D3D4 E1E2E3E4E5E6E7E8",
                           nPort & 0xFF, nPort >> 8);
    };
    const auto Request = [&](int nPort) {
        return "FE 3B000000 43 78563412" + strFill + "1E000000 0300 A1A2A3A4" + Rest(nPort);
    };
    const auto ExpectSession = [&](const char* szFrom, std::uint8_t byNode) {
        CReceiverSession session = receiver.Accept().value();
        sockaddr_in address{};
        socklen_t nLen = sizeof(address);
        auto* const pAddress = reinterpret_cast<sockaddr*>(&address);
        getpeername(session.Connection().Descriptor(), pAddress, &nLen);
        EXPECT_STREQ(inet_ntoa(address.sin_addr), szFrom);
        const UploadInfo info = session.Handshake();
        EXPECT_EQ(info.dwInfo1, 0xC4C3C2C1);
        EXPECT_EQ(info.byNode, byNode);
    };
    EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
    const std::string strFill36 = strFill + strFill.substr(0, 30);
    const std::string strBytes =
        Hex("FE 2D000000 02 11000000" + strFill36 + "0200007F 5A" + Request(receiver.Port()));
    link.Connection().SendByteByByte({strBytes.begin(), strBytes.end()});
    ExpectSession("127.0.0.2", 0x5A);
    SendBytes(link.Connection(),
              Hex("FE 29000000 40" + strFill36 + "00000000 A5" + Request(receiver.Port())));
    ExpectSession("127.0.0.1", 0xA5);
    SendBytes(link.Connection(), Hex(Request(kNobody)));
    EXPECT_EQ(NextFrame(link.Connection()),
              Hex("FE 2F000000 34 78563412 A1A2A3A4 17000000 03 1E000000 0400" + Rest(kNobody) +
                  "02000000"));
    EXPECT_EQ(link.service.Stop(), 0);
}

std::string Sized(AgentFrame frame, std::size_t nPayload) {
    frame.payload.resize(nPayload, 0xFF);
    return Encoded(frame);
}

// A request whose block has nBlock bytes, and nSaid by its own account.
std::string Block(std::size_t nBlock, std::uint32_t nSaid, std::uint16_t wCommand = 3) {
    PeerBytes block = Link::Request(1, kNobody).Encode();
    StoreLe16(block.data(), wCommand);
    block.resize(nBlock);
    AgentFrame frame = MakeHlogRequest(1, block);
    StoreLe32(&frame.payload[kHlogBlockLengthOffset], nSaid);
    return Encoded(frame);
}

struct BreakCase {
    const char* szName;
    std::string strBytes;
    bool bRegistered = true;
    PeerEnd eAgent = PeerEnd::kNone;  // how the agent ends the link; kNone: the service does
};

std::vector<BreakCase> BreakCases() {
    const AgentFrame ack = MakeRegisterAck();
    const AgentFrame parameters = MakeParameters(kForeign, 0);
    return {
        {"answer of 50 bytes", Sized(ack, 44), false},
        {"answer of 52 bytes", Sized(ack, 46), false},
        {"answer with another value", Encoded(MakeRegisterAck(0, 0, 18)), false},
        {"answer with a longer value", Encoded(MakeRegisterAck(0, 0, 0x01000011)), false},
        {"parameters too early", Encoded(parameters), false},
        {"request too early", Block(30, 30), false},
        {"201 bytes announced too early", Hex("FE C9000000"), false},
        {"agent gone too early", Hex("FE 2D000000 02 11"), false, PeerEnd::kClosed},
        {"agent resets too early", {}, false, PeerEnd::kReset},
        {"second answer", Encoded(ack)},
        {"parameters of 46 bytes", Sized(parameters, 40)},
        {"parameters of 48 bytes", Sized(parameters, 42)},
        {"a block of 30 that says 31", Block(30, 31)},
        {"a block of 30 that says 29", Block(30, 29)},
        {"a block of 30 that says 2^32 - 1", Block(30, 0xFFFFFFFF)},
        {"a block of 30 that says 2^31 + 30", Block(30, 0x8000001E)},
        {"a block that wraps the length", Block(0, 0xFFFFFFDD)},
        {"request of 34 bytes", Sized({CMD_HLOG_REQUEST, {}}, 28)},
        {"keep-alive from the agent", kKeepAlive},
        {"answer from the agent", Sized({CMD_ANSWER, {}}, 47)},
        {"command 0", Hex("FE 00000000 00")},
        {"other lead byte", Hex("00")},
        {"other lead byte behind a frame", Hex("FE 1D000000 43" + std::string(58, '0') + "FD")},
        {"201 bytes announced", Hex("FE C9000000")},
        {"2^32 - 1 bytes announced", Hex("FE FFFFFFFF")},
        {"agent gone amid a frame", Hex("FE C8000000 43 01020304"), true, PeerEnd::kClosed},
        {"agent resets", {}, true, PeerEnd::kReset},
    };
}

TEST(Link, EndsAtWhatItDoesNotAcceptAndComesBackUnharmed) {
    const std::vector<BreakCase> cases = BreakCases();
    std::deque<Link> links;
    for (const BreakCase& test : cases) {
        SCOPED_TRACE(test.szName);
        Link& link = links.emplace_back();
        link.Start();
        if (test.bRegistered) {
            link.agent.Register(kForeign, 7);
        } else {
            EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
        }
        SendBytes(link.Connection(), test.strBytes);
        if (test.eAgent == PeerEnd::kReset) {
            link.Connection().Reset();
        } else if (test.eAgent == PeerEnd::kClosed) {
            link.Connection().Close();
        } else {
            // before the guard of the registration would end it
            EXPECT_EQ(link.agent.AwaitEnd(3000), PeerEnd::kClosed);
        }
    }
    for (std::size_t i = 0; i < links.size(); ++i) {
        SCOPED_TRACE(cases[i].szName);
        ASSERT_TRUE(links[i].agent.Accept(kRetryLimitMs));
        links[i].agent.Register();
        links[i].ExpectService();
        links[i].service.Signal(SIGTERM);
    }
    for (Link& link : links) {
        EXPECT_EQ(link.service.Wait(), 0);
    }
}

TEST(Link, PassesOverRequestsThatTheIntakeDoesNotTake) {
    Link link;
    link.Start();
    link.agent.Register();
    for (const std::string& strFrame : {Block(0, 0), Block(29, 29), Block(31, 31), Block(30, 30, 4),
                                        Block(30, 30, 0x0103), Block(171, 171)}) {
        SendBytes(link.Connection(), strFrame + strFrame);
        link.ExpectService();
    }
    link.agent.Send({MakeParameters(kForeign, 0), MakeHlogRequest(9, Link::Request(9, kNobody))});
    link.Expect(9, kNobody, 1);  // an address that it cannot bind to
    link.agent.Send(MakeParameters(0, 0));
    link.ExpectService();
    EXPECT_EQ(link.service.Stop(), 0);
}

TEST(Link, HoldsFiveSessionsAndFillsTheLowestFreeSlot) {
    Link link;
    link.Start();
    link.agent.Register();
    CReceiver receiver;
    std::optional<CReceiverSession> sessions[kSlots];
    const auto Start = [&](std::uint32_t dwId, int nSlot) {
        sessions[nSlot] = link.Open(dwId, receiver, nSlot);
    };
    const auto End = [&](std::uint32_t dwId, int nSlot) {
        link.End(*sessions[nSlot], nSlot);
        link.Expect(dwId, receiver.Port(), kNoHandshake);
    };
    for (int nSlot = 0; nSlot < kSlots; ++nSlot) {
        Start(static_cast<std::uint32_t>(nSlot), nSlot);
    }
    link.Send(5, kNobody);
    link.Expect(5, kNobody, kNotStarted);
    End(2, 2);
    Start(6, 2);
    End(4, 4);
    End(1, 1);
    Start(7, 1);
    EXPECT_EQ(link.service.Thread("logd.upload4"), 0);
    Start(8, 4);
    link.Send(9, kNobody);
    link.Expect(9, kNobody, kNotStarted);
    EXPECT_EQ(link.service.Stop(), 0);
}

TEST(Link, LosesAnswersWhileItIsDown) {
    Link link;
    link.Start();
    link.agent.Register();
    CReceiver receiver;
    CReceiverSession first = link.Open(1, receiver, 0);
    CReceiverSession second = link.Open(2, receiver, 1);
    link.Connection().Close();
    link.End(first, 0);  // the answer finds the link closed
    ASSERT_TRUE(link.agent.Accept(kRetryLimitMs));
    EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
    link.End(second, 1);  // this one finds it registering
    link.agent.Send(MakeRegisterAck());
    link.ExpectService();
    EXPECT_EQ(link.service.Stop(), 0);
}

// The local end of the connection that hangs at wPort; empty when there is none.
std::string Hanging(std::uint16_t wPort) {
    const std::string strWanted = fmt::format(" 0100007F:{:04X} 02 ", wPort);
    std::ifstream table("/proc/net/tcp");
    for (std::string strLine; std::getline(table, strLine);) {
        const std::size_t nAt = strLine.find(strWanted);
        if (nAt != std::string::npos) {
            return strLine.substr(nAt - 13, 13);
        }
    }
    return "";
}

// What takes seconds, side by side.
TEST(Link, KeepsTryingKeepsAliveAndStopsInEveryState) {
    Link established;
    Link unanswered;
    Link hanging;
    Link refused;
    const auto fillers = FillQueue(hanging.agent.Port());
    refused.agent.StopListening();
    const std::int64_t nStart = MonotonicMs();
    established.Start();
    established.agent.Register();
    unanswered.Start();
    ASSERT_TRUE(hanging.service.Start() && refused.service.Start());
    std::string strFirst;
    EXPECT_TRUE(WaitUntil([&] { return !(strFirst = Hanging(hanging.agent.Port())).empty(); }));

    refused.agent.Listen();
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(refused.agent.Accept(kRetryLimitMs));
        refused.Connection().Close();
    }
    refused.agent.StopListening();
    EXPECT_GE(MonotonicMs() - nStart, 3000);  // which lies between two attempts

    EXPECT_EQ(NextFrame(unanswered.Connection()), kRegistration);
    EXPECT_EQ(NextFrame(unanswered.Connection()), "");
    EXPECT_EQ(unanswered.agent.End(), PeerEnd::kClosed);
    EXPECT_TRUE(unanswered.agent.Accept(kRetryLimitMs));
    EXPECT_TRUE(WaitUntil([&] {
        const std::string strNext = Hanging(hanging.agent.Port());
        return !strNext.empty() && strNext != strFirst;
    }));

    EXPECT_EQ(NextFrame(established.Connection()), kKeepAlive);
    EXPECT_EQ(NextFrame(established.Connection()), kKeepAlive);
    while (established.agent.Receive(0)) {
    }
    EXPECT_LE(established.agent.KeepAlives() + 2, (MonotonicMs() - nStart) / 3000);

    for (Link* pLink : {&refused, &hanging, &unanswered, &established}) {
        EXPECT_EQ(pLink->service.Stop(), 0);
        EXPECT_EQ(pLink->service.Trace().find("CmdThread"), std::string::npos);
    }
}

}  // namespace
