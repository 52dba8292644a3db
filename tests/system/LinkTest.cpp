// The real service and its management agent: the bytes of the command link, what ends it and what
// does not, how it comes back, and what becomes of history requests.
#include <fmt/format.h>

#include <deque>

#include "support/MonoClock.h"
#include "system/SystemTest.h"

namespace {

constexpr std::uint32_t kForeign = 0xC0000201;  // 192.0.2.1, an address of no machine
constexpr int kRetryLimitMs = 5000;             // the service tries every 3 s
constexpr std::uint32_t kSlots = 5;

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
    void Start(bool bRegister = true) {
        if (!service.Start() || !agent.Accept()) {
            throw std::runtime_error("no service");
        }
        if (bRegister) {
            agent.Register();
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

    CAgent agent{FreePort(SOCK_STREAM)};
    CService service{TARVIK_LOGD, agent.Port()};
};

TEST(Link, SpeaksByteForByte) {
    Link link;
    link.Start(false);
    CReceiver receiver;
    const std::string strFill(42, 'A');  // bytes that are carried unread
    const std::string strFill36 = strFill + strFill.substr(0, 30);
    const auto Rest = [](int nPort) {  // of a block, behind its first 6 bytes
        return fmt::format("0100007F {:02X}{:02X} B1B2 C1C2C3C4 D1D2D3D4 E1E2E3E4E5E6E7E8",
                           nPort & 0xFF, nPort >> 8);
    };
    const auto Request = [&](int nPort) {
        return "FE 3B000000 43 78563412" + strFill + "1E000000 0300 A1A2A3A4" + Rest(nPort);
    };
    const auto ExpectSession = [&](std::uint32_t dwFrom, std::uint8_t byNode) {
        CReceiverSession session = receiver.Accept().value();
        sockaddr_in from{};
        socklen_t nLen = sizeof(from);
        getpeername(session.Connection().Descriptor(), reinterpret_cast<sockaddr*>(&from), &nLen);
        EXPECT_EQ(ntohl(from.sin_addr.s_addr), dwFrom);
        const UploadInfo info = session.Handshake();
        EXPECT_EQ(info.dwInfo1, 0xC4C3C2C1);
        EXPECT_EQ(info.byNode, byNode);
    };
    EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
    const std::string strBytes =
        Hex("FE 2D000000 02 11000000" + strFill36 + "0200007F 5A" + Request(receiver.Port()));
    link.Connection().SendByteByByte({strBytes.begin(), strBytes.end()});
    ExpectSession(0x7F000002, 0x5A);
    SendBytes(link.Connection(),
              Hex("FE 29000000 40" + strFill36 + "00000000 A5" + Request(receiver.Port())));
    ExpectSession(0x7F000001, 0xA5);
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
    bool bEarly = false;      // sent while the service registers
    bool bAgentEnds = false;  // the link; else the service does
};

std::vector<BreakCase> BreakCases() {
    const AgentFrame ack = MakeRegisterAck();
    const AgentFrame parameters = MakeParameters(kForeign, 0);
    return {
        {"answer of 50 bytes", Sized(ack, 44), true},
        {"answer of 52 bytes", Sized(ack, 46), true},
        {"answer with a longer value", Encoded(MakeRegisterAck(0, 0, 0x01000011)), true},
        {"parameters too early", Encoded(parameters), true},
        {"request too early", Block(30, 30), true},
        {"agent gone too early", Hex("FE 2D000000 02 11"), true, true},
        {"second answer", Encoded(ack)},
        {"parameters of 46 bytes", Sized(parameters, 40)},
        {"parameters of 48 bytes", Sized(parameters, 42)},
        {"a block of 30 that says 31", Block(30, 31)},
        {"a block of 30 that says 29", Block(30, 29)},
        {"a block of 30 that says 2^31 + 30", Block(30, 0x8000001E)},
        {"a block that wraps the length", Block(0, 0xFFFFFFDD)},
        {"request of 34 bytes", Sized({CMD_HLOG_REQUEST, {}}, 28)},
        {"keep-alive from the agent", kKeepAlive},
        {"other lead byte behind a frame", Hex("FE 1D000000 43" + std::string(58, '0') + "FD")},
        {"agent gone amid a frame", Hex("FE C8000000 43 01020304"), false, true},
    };
}

TEST(Link, EndsAtWhatItDoesNotAcceptAndComesBackUnharmed) {
    const std::vector<BreakCase> cases = BreakCases();
    std::deque<Link> links;
    for (const auto& [szName, strBytes, bEarly, bAgentEnds] : cases) {
        SCOPED_TRACE(szName);
        Link& link = links.emplace_back();
        link.Start(false);
        if (bEarly) {
            EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
        } else {
            link.agent.Register(kForeign, 7);
        }
        link.agent.StopListening();  // until all cases are through
        SendBytes(link.Connection(), strBytes);
        if (bAgentEnds) {
            link.Connection().Close();
        } else {
            // before the guard of the registration would end it
            EXPECT_EQ(link.agent.AwaitEnd(3000), PeerEnd::kClosed);
        }
    }
    std::vector<Link*> away;
    for (Link& link : links) {
        link.agent.Listen();
        away.push_back(&link);
    }
    // Each is answered as soon as it comes, within the time that it gives its agent.
    const auto Registers = [](Link* pLink) {
        const bool bCame = pLink->agent.Accept(0);
        if (bCame) {
            pLink->agent.Register();
        }
        return bCame;
    };
    EXPECT_TRUE(WaitUntil(
        [&] {
            std::erase_if(away, Registers);
            return away.empty();
        },
        kRetryLimitMs));
    for (std::size_t i = 0; i < links.size(); ++i) {
        SCOPED_TRACE(cases[i].szName);
        links[i].ExpectService();
        EXPECT_EQ(links[i].service.Stop(), 0);
    }
}

TEST(Link, PassesOverRequestsThatTheIntakeDoesNotTake) {
    Link link;
    link.Start();
    for (const std::string& strFrame : {Block(0, 0), Block(29, 29), Block(31, 31), Block(30, 30, 4),
                                        Block(30, 30, 0x0103), Block(171, 171)}) {
        SendBytes(link.Connection(), strFrame + strFrame);
        link.ExpectService();
    }
    link.agent.Send({MakeParameters(kForeign, 0), MakeHlogRequest(9, Link::Request(9, kNobody))});
    link.Expect(9, kNobody, 1);  // an address that it cannot bind to
    EXPECT_EQ(link.service.Stop(), 0);
}

TEST(Link, FillsTheLowestFreeSlotAndLosesAnswersWhileItIsDown) {
    Link link;
    link.Start();
    CReceiver receiver;
    std::optional<CReceiverSession> sessions[kSlots];
    const auto Open = [&](std::uint32_t dwId, std::uint32_t nSlot) {
        link.Send(dwId, receiver.Port());
        EXPECT_TRUE(AwaitSlot(link.service, static_cast<int>(nSlot), true)) << nSlot;
        sessions[nSlot] = receiver.Accept().value();
    };
    // The intake stores the record after it has posted the answer.
    const auto End = [&](std::uint32_t nSlot) {
        sessions[nSlot]->Connection().Close();
        EXPECT_TRUE(AwaitSlot(link.service, static_cast<int>(nSlot), false)) << nSlot;
        CNumberedSender sender(link.service.RecordPort(), TodayPath(link.service));
        EXPECT_TRUE(sender.Send(0, 1));
    };
    for (std::uint32_t nSlot = 0; nSlot < kSlots; ++nSlot) {
        Open(nSlot, nSlot);
    }
    for (const std::uint32_t nSlot : {4U, 2U}) {
        End(nSlot);
        link.Expect(nSlot, receiver.Port(), kNoHandshake);
    }
    Open(5, 2);
    Open(6, 4);
    link.Send(7, kNobody);
    link.Expect(7, kNobody, kNotStarted);
    link.Connection().Close();
    End(0);  // the answer finds the link closed
    ASSERT_TRUE(link.agent.Accept(kRetryLimitMs));
    EXPECT_EQ(NextFrame(link.Connection()), kRegistration);
    End(1);  // this one finds it registering
    link.agent.Send(MakeRegisterAck());
    link.ExpectService();
    EXPECT_EQ(link.service.Stop(), 0);
}

// The local end of the connection that hangs at wPort; empty when there is none.
std::string Hanging(std::uint16_t wPort) {
    std::ifstream file("/proc/net/tcp");
    const std::string strTable(std::istreambuf_iterator<char>(file), {});
    const std::size_t nAt = strTable.find(fmt::format(" 0100007F:{:04X} 02 ", wPort));
    return nAt == std::string::npos ? "" : strTable.substr(nAt - 13, 13);
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
    unanswered.Start(false);
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

    EXPECT_EQ(NextFrame(established.Connection()) + NextFrame(established.Connection()),
              kKeepAlive + kKeepAlive);
    while (established.agent.Receive(0)) {
    }
    EXPECT_LE(established.agent.KeepAlives() + 2, (MonotonicMs() - nStart) / 3000);

    for (Link* pLink : {&refused, &hanging, &unanswered, &established}) {
        EXPECT_EQ(pLink->service.Stop(), 0);
        EXPECT_EQ(pLink->service.Trace().find("CmdThread"), std::string::npos);
    }
}

}  // namespace
