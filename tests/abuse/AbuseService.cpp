// The ways into the service: records, console, command link, upload sessions.
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "abuse/Abuse.h"
#include "logstore/LogRecord.h"
#include "peers/Agent.h"
#include "peers/LogClient.h"
#include "peers/Receiver.h"
#include "peers/Service.h"
#include "peers/Telnet.h"
#include "reading/IntakeCounters.h"

namespace {

constexpr std::uint64_t kServiceKb = 1000;
constexpr std::size_t kMostDatagram = 2000;
constexpr std::size_t kBatch = 64;
constexpr const char* kNames[] = {
    "",          "/",    "..",          "../etc/passwd", "20261122.log/", "../log/x",
    "0.log",     "%n%s", "\x1b[2J",     "a/../../b",     "/dev/zero",     "20261122.log;reboot",
    "$(reboot)", "`id`", "nul\0inside", "20261122.LOG",  "..\\..\\x",     "x.log",
};

// What every phase ends with: the service still does its work.
void Require(bool bHolds, const char* szWhat) {
    if (!bHolds) {
        throw std::runtime_error(std::string("after the abuse: ") + szWhat);
    }
}

PeerBytes HostileDatagram(CDice& dice) {
    LogRecord record = MakeRecord(static_cast<std::int32_t>(dice.Below(100)),
                                  static_cast<std::int32_t>(dice.Below(5)), "as it should be");
    switch (dice.Below(6)) {
        case 0:
            return dice.Bytes(dice.Below(kMostDatagram));
        case 1:
            record.nIndex = static_cast<std::int32_t>(dice.Number());
            break;
        case 2:
            record.nType = static_cast<std::int32_t>(dice.Number());
            break;
        case 3: {
            const PeerBytes text = dice.Bytes(kRecordTextBytes);
            std::copy(text.begin(), text.end(), record.szText);
            break;
        }
        case 4:
            record.dwMagic ^= 1U << dice.Below(32);
            break;
        default:
            break;
    }
    const auto* const pBytes = reinterpret_cast<const std::uint8_t*>(&record);
    PeerBytes bytes(pBytes, pBytes + sizeof(record));
    bytes.resize(bytes.size() + dice.Below(2) * dice.Below(100));
    return bytes;
}

bool AbuseRecords(CService& service, const AbuseScale& scale, CDice& dice) {
    CWatch watch("records", service.Pid(), kServiceKb);
    CLogClient client(service.RecordPort());
    const auto bTaken = [&] {
        return WaitUntil([&] {
            const auto counters = ReadUdpPort(service.RecordPort());
            return counters && counters->nWaitingBytes == 0;
        });
    };
    for (std::uint64_t n = 0; n < scale.Inputs(); ++n) {
        const PeerBytes bytes = HostileDatagram(dice);
        client.SendBytes(bytes.data(), bytes.size());
        if (n % kBatch == 0) {
            Require(bTaken(), "the intake takes no datagrams");
            watch.Step(n, scale.Inputs());
        }
    }
    Require(bTaken(), "the intake takes no datagrams");
    const std::uint64_t nDropped = ReadUdpPort(service.RecordPort())->nDropped;
    return watch.Report(fmt::format("{} datagrams, {} of them dropped", scale.Inputs(), nDropped));
}

std::string HostileLine(CDice& dice) {
    static const char* const kLines[] = {"set 0\r\n", "set 99\r\n",      "set -1\r\n", "\r\n",
                                         "x",         "help\r\n",        "set\r\n",    "X\r\n",
                                         "set 1",     "\xff\xf4\xff\xfd"};
    if (dice.Below(2) == 0) {
        return kLines[dice.Below(std::size(kLines))];
    }
    const PeerBytes bytes = dice.Bytes(1 + dice.Below(dice.Below(20) == 0 ? 3000 : 40));
    return {bytes.begin(), bytes.end()};
}

// Sends all, and reads what comes meanwhile. False: the connection has ended.
bool Exchange(int nSocket, const std::string& strBytes) {
    static std::array<char, 65536> piece;
    for (std::size_t nSent = 0; nSent < strBytes.size();) {
        pollfd ready{nSocket, POLLIN | POLLOUT, 0};
        if (poll(&ready, 1, kPeerLimitMs) != 1) {
            throw std::runtime_error("the console takes nothing");
        }
        if ((ready.revents & POLLIN) != 0 &&
            recv(nSocket, piece.data(), piece.size(), MSG_DONTWAIT) <= 0) {
            return false;
        }
        if ((ready.revents & POLLOUT) != 0) {
            const ssize_t nNow = send(nSocket, strBytes.data() + nSent, strBytes.size() - nSent,
                                      MSG_NOSIGNAL | MSG_DONTWAIT);
            if (nNow < 0 && errno != EAGAIN) {
                return false;
            }
            nSent += static_cast<std::size_t>(std::max<ssize_t>(nNow, 0));
        } else if ((ready.revents & (POLLERR | POLLHUP)) != 0) {
            return false;
        }
    }
    return true;
}

bool AbuseConsole(CService& service, const AbuseScale& scale, CDice& dice) {
    CWatch watch("console", service.Pid(), kServiceKb);
    constexpr std::uint32_t kMostLines = 5000;
    std::uint64_t nDone = 0;
    std::uint64_t nConnections = 0;
    while (nDone < scale.Inputs()) {
        CTelnet telnet(service.ConsolePort());
        ++nConnections;
        if (dice.Below(4) != 0) {
            telnet.LogIn();
        }
        for (std::uint32_t nLines = dice.Below(kMostLines); nLines > 0 && nDone < scale.Inputs();
             --nLines, ++nDone) {
            if (!Exchange(telnet.Socket(), HostileLine(dice))) {
                break;
            }
        }
        // The end of our side only: all of it is read before the console ends its own.
        shutdown(telnet.Socket(), SHUT_WR);
        static_cast<void>(telnet.ReadToEnd());
        watch.Step(nDone, scale.Inputs());
    }
    {
        CTelnet telnet(service.ConsolePort());
        Require(!telnet.LogIn().empty(), "the console lets nobody in");
    }
    return watch.Report(fmt::format("{} inputs, {} connections", nDone, nConnections));
}

// A receiver that nobody listens at.
AgentRequest Unreachable() {
    AgentRequest request;
    request.wPort = 1;
    return request;
}

AgentFrame HostileFrame(CDice& dice) {
    switch (dice.Below(3)) {
        case 0: {
            AgentFrame frame{CMD_PARAMETERS, dice.Bytes(kParametersBytes)};
            StoreLe32(&frame.payload[kParametersAddressOffset], 0);  // else no upload could start
            return frame;
        }
        case 1:
            return MakeHlogRequest(dice.Number(), dice.Bytes(dice.Below(170)));
        default: {
            FrameBytes block = Unreachable().Encode();
            block.at(dice.Below(kBlockEchoOffset)) ^=
                static_cast<std::uint8_t>(1 + dice.Below(255));
            return MakeHlogRequest(dice.Number(), block);
        }
    }
}

// The request and its answer.
void ExchangeOnLink(CAgent& agent, std::uint32_t dwId) {
    agent.Send(MakeHlogRequest(dwId, Unreachable()));
    const auto answer = agent.ReceiveAnswer();
    Require(answer && answer->dwId == dwId, "a history request gets no answer");
}

bool AbuseLink(CService& service, CAgent& agent, const AbuseScale& scale, CDice& dice) {
    CWatch watch("command link", service.Pid(), kServiceKb);
    std::uint64_t nEnded = 0;
    for (std::uint64_t n = 0; n < scale.Inputs();) {
        std::vector<AgentFrame> frames;
        for (std::size_t nFrame = 0; nFrame < kBatch; ++nFrame, ++n) {
            frames.push_back(HostileFrame(dice));
        }
        agent.Send(frames);
        ExchangeOnLink(agent, static_cast<std::uint32_t>(n));
        if (dice.Below(500) == 0) {  // rarely, since the service comes again after 3 s
            agent.Connection().Send(dice.Bytes(1 + dice.Below(300)));
            agent.Connection().Close();
            Require(agent.Accept(), "the service does not come again");
            agent.Register();
            ++nEnded;
        }
        watch.Step(n, scale.Inputs());
    }
    return watch.Report(fmt::format("{} frames, {} links broken", scale.Inputs(), nEnded));
}

bool AbuseLinkExchanges(CService& service, CAgent& agent, const AbuseScale& scale) {
    CWatch watch("exchanges of the link", service.Pid(), kServiceKb);
    const std::uint64_t nAll = scale.Exchanges() / 2;
    for (std::uint64_t n = 0; n < nAll; ++n) {
        ExchangeOnLink(agent, static_cast<std::uint32_t>(n));
        watch.Step(n, nAll);
    }
    return watch.Report(fmt::format("{} requests and answers", nAll));
}

CReceiverSession OpenSession(CAgent& agent, CReceiver& receiver) {
    AgentRequest request;
    request.wPort = receiver.Port();
    agent.Send(MakeHlogRequest(1, request));
    auto session = receiver.Accept();
    Require(session.has_value(), "no upload session comes");
    return std::move(*session);
}

// A message of a code that does no harm to this machine, with any body. True: the session has to
// answer it.
void SendHostileMessage(CReceiverSession& session, CDice& dice) {
    static constexpr std::uint16_t kCodes[] = {UM_CANCEL_ACK, UM_RTLOG,  UM_GET_HLOG_ACK, 0,
                                               65535,         UM_CANCEL, UM_INFO,         UM_HELLO};
    session.SendMessage(kCodes[dice.Below(std::size(kCodes))], dice.Bytes(dice.Below(500)));
}

// Of one session: asks for files that there are and that there are not. How many exchanges.
std::uint64_t ExchangeFiles(CReceiverSession& session, CDice& dice, std::uint64_t nMost) {
    for (std::uint64_t n = 0; n < nMost; ++n) {
        std::string strName = kNames[dice.Below(std::size(kNames))];
        if (dice.Below(4) == 0) {
            const PeerBytes bytes = dice.Bytes(dice.Below(kGetHlogNameBytes));
            strName.assign(bytes.begin(), bytes.end());
        }
        const std::uint32_t dwStart = dice.Below(3) == 0 ? dice.Number() : dice.Below(3000);
        const UploadFileAnswer answer = session.GetFile(strName, dwStart);
        if (answer.byResult == kGetHlogFound) {
            const std::uint64_t nBytes = answer.dwSize - dwStart;
            Require(strName == "x.log", "a file came that is none of the history");
            Require(session.ReceiveFile(nBytes, [](const std::uint8_t*, std::size_t) {}) == nBytes,
                    "a file does not come whole");
        }
        if (dice.Below(50) == 0) {
            session.Subscribe(std::vector<ClientAndType>{
                {static_cast<int>(dice.Below(100)), static_cast<int>(dice.Below(4))}});
        }
    }
    return nMost;
}

bool AbuseUploads(CService& service, CAgent& agent, const AbuseScale& scale, CDice& dice) {
    CWatch watch("upload sessions", service.Pid(), kServiceKb);
    CReceiver receiver;
    constexpr std::uint64_t kOfSession = 1000;
    std::uint64_t nDone = 0;
    std::uint64_t nSessions = 0;
    const std::uint64_t nAll = scale.Inputs();
    while (nDone < nAll) {
        CReceiverSession session = OpenSession(agent, receiver);
        ++nSessions;
        if (dice.Below(8) == 0) {  // no handshake
            session.Connection().Send(dice.Bytes(1 + dice.Below(600)));
        } else {
            session.Handshake();
            nDone += ExchangeFiles(session, dice, std::min(kOfSession, nAll - nDone));
            SendHostileMessage(session, dice);
        }
        ++nDone;
        session.Connection().Reset();
        watch.Step(nDone, nAll);
    }
    return watch.Report(fmt::format("{} inputs, {} sessions", nDone, nSessions));
}

bool AbuseFileExchanges(CService& service, CAgent& agent, const AbuseScale& scale, CDice& dice) {
    CWatch watch("exchanges of files", service.Pid(), kServiceKb);
    CReceiver receiver;
    CReceiverSession session = OpenSession(agent, receiver);
    session.Handshake();
    const std::uint64_t nAll = scale.Exchanges() / 2;
    for (std::uint64_t n = 0; n < nAll;) {
        n += ExchangeFiles(session, dice, std::min<std::uint64_t>(100, nAll - n));
        watch.Step(n, nAll);
    }
    session.Connection().Close();
    return watch.Report(fmt::format("{} requests and answers", nAll));
}

}  // namespace

bool AbuseService(const AbuseScale& scale, std::uint64_t nSeed) {
    CDice dice(nSeed);
    CAgent agent;
    CService service(TARVIK_LOGD, agent.Port());
    service.WriteFile("/hislog/x.log", std::string(5000, 'x'));
    std::filesystem::create_directories(service.Path("/etc/boa"));  // the console looks there
    service.WriteFile("/etc/boa/boa.conf", "");
    Require(service.Start(), "the service does not start");
    agent.Register();
    bool bGood = AbuseRecords(service, scale, dice);
    bGood = AbuseConsole(service, scale, dice) && bGood;
    // Console and records took their time: what the link said meanwhile is read with the answers.
    bGood = AbuseLink(service, agent, scale, dice) && bGood;
    bGood = AbuseLinkExchanges(service, agent, scale) && bGood;
    bGood = AbuseUploads(service, agent, scale, dice) && bGood;
    bGood = AbuseFileExchanges(service, agent, scale, dice) && bGood;
    Require(service.Stop() == 0, "the service does not end with 0");
    return bGood;
}
