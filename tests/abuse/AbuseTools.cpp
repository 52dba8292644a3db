// What may connect to "tarvik-log receive" and "tarvik-log agent".
#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "abuse/Abuse.h"
#include "peers/ReadWhole.h"
#include "peers/Service.h"
#include "peers/TempDir.h"
#include "support/Socket.h"
#include "transfer/AgentFrame.h"
#include "transfer/UploadMessage.h"

namespace {

constexpr std::uint64_t kToolKb = 8000;  // names and addresses that are remembered, up to 10,000
constexpr std::uint64_t kAwaitEach = 16;
constexpr const char* kHonest = "127.0.0.5";

// tarvik-log in a directory of its own, ended with this.
class CTool {
public:
    CTool(const std::string& strArguments, std::string strFirst) : m_strFirst(std::move(strFirst)) {
        const std::string strCommand = fmt::format("cd '{}' && exec {} {} >out 2>&1 </dev/null",
                                                   m_Directory.Path(), TARVIK_LOG, strArguments);
        m_nPid = fork();
        if (m_nPid == 0) {
            execl("/bin/sh", "sh", "-c", strCommand.c_str(), nullptr);
            _exit(127);
        }
        if (!WaitUntil([this] { return Said().find('\n') != std::string::npos; })) {
            throw std::runtime_error(strArguments + ": does not start");
        }
    }
    ~CTool() {
        if (m_nPid > 0) {
            kill(m_nPid, SIGKILL);
            waitpid(m_nPid, nullptr, 0);
        }
    }
    CTool(const CTool&) = delete;
    CTool& operator=(const CTool&) = delete;

    pid_t Pid() const { return m_nPid; }
    std::string Said() const { return ReadWhole(m_Directory.Path() + "/out"); }
    std::string Path(const std::string& strName) const { return m_Directory.Path() + strName; }
    std::uint16_t Port() const {
        const std::string strLine = Said();
        return static_cast<std::uint16_t>(
            std::stoi(strLine.substr(strLine.find(':', strLine.find(m_strFirst)) + 1)));
    }
    // Whether it lives and SIGTERM ends it, with 1 for what strangers did not bring.
    bool Stop() {
        int nStatus = 0;
        kill(m_nPid, SIGTERM);
        const pid_t nEnded = waitpid(m_nPid, &nStatus, 0);
        m_nPid = 0;
        return nEnded > 0 && WIFEXITED(nStatus) && WEXITSTATUS(nStatus) <= 1;
    }

private:
    std::string m_strFirst;  // of its first line, in front of its address and port
    const CTempDir m_Directory;
    pid_t m_nPid = 0;
};

CPeerSocket ConnectFrom(const std::string& strAddress, std::uint16_t wPort) {
    CUniqueFd socket(MakeSocket(SOCK_STREAM));
    const linger hard{1, 0};  // no port of ours stays taken
    setsockopt(socket.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    const bool bConnected = BindToAddress(socket.Get(), ntohl(inet_addr(strAddress.c_str())), 0) &&
                            ConnectSocket(socket.Get(), kLoopback, wPort);
    if (!bConnected) {
        throw std::system_error(errno, std::generic_category(), "connect from " + strAddress);
    }
    return CPeerSocket(std::move(socket));
}

void Add(PeerBytes& bytes, const PeerBytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// A message of nLength bytes: dwFirst, zeros, and byLast.
PeerBytes Message(std::uint16_t wCode, std::size_t nLength, std::uint32_t dwFirst,
                  std::uint8_t byLast = 0) {
    PeerBytes body(nLength - kUmBodyOffset);
    StoreLe32(body.data(), dwFirst);
    body.back() |= byLast;
    return MakeUploadFrame(wCode, body.data(), body.size());
}

// All that a session sends to bring a file of strContent.size() bytes.
PeerBytes WholeSession(std::uint32_t dwName, const std::string& strContent) {
    PeerBytes bytes = Message(UM_HELLO, kHelloBytes, kProtocolVersion);
    Add(bytes, Message(UM_INFO, kInfoBytes, dwName));
    Add(bytes, Message(UM_GET_HLOG_ACK, kGetHlogAckBytes,
                       static_cast<std::uint32_t>(strContent.size()), kGetHlogFound));
    Add(bytes, {strContent.begin(), strContent.end()});
    return bytes;
}

PeerBytes HostileSession(CDice& dice) {
    const std::string strContent(1 + dice.Below(5000), 'x');
    PeerBytes bytes = WholeSession(dice.Number(), strContent);
    switch (dice.Below(8)) {
        case 0:
            return {};
        case 1:
            return dice.Bytes(1 + dice.Below(700));
        case 2:
            return Message(UM_HELLO, kHelloBytes, dice.Number());
        case 3: {
            PeerBytes records = Message(UM_HELLO, kHelloBytes, kProtocolVersion);
            Add(records, Message(UM_INFO, kInfoBytes, 0));
            const PeerBytes record = dice.Bytes(300);
            Add(records, MakeUploadFrame(UM_RTLOG, record.data(), record.size()));
            return records;
        }
        case 4:
            bytes.at(dice.Below(static_cast<std::uint32_t>(bytes.size()))) ^= 0x55;
            return bytes;
        case 5:
        case 6:
            bytes.resize(dice.Below(static_cast<std::uint32_t>(bytes.size())));
            return bytes;
        default:
            return bytes;
    }
}

// Sends what it can: a receiver that has had enough has closed.
void SendWhatGoes(CPeerSocket& socket, const PeerBytes& bytes) {
    try {
        socket.Send(bytes);
    } catch (const std::system_error&) {
        socket.Close();
    }
}

// Whether an honest session brings its file.
bool BringsItsFile(const CTool& tool) {
    const std::string strContent = "what an honest one brings";
    CPeerSocket socket = ConnectFrom(kHonest, tool.Port());
    socket.Send(WholeSession(0, strContent));
    return socket.AwaitEnd() == PeerEnd::kClosed &&
           ReadWhole(tool.Path("/got/") + kHonest + "/a") == strContent;
}

PeerBytes HostileLink(CDice& dice) {
    PeerBytes value(sizeof(std::uint32_t));
    StoreLe32(value.data(), kRegisterValue);
    PeerBytes bytes;
    switch (dice.Below(6)) {
        case 0:
            return {};
        case 1:
            return dice.Bytes(1 + dice.Below(700));
        case 2:
            return AgentFrame{CMD_REGISTER, dice.Bytes(4)}.Encode();
        case 3:
            for (std::uint32_t nFrame = dice.Below(100); nFrame > 0; --nFrame) {
                Add(bytes, AgentFrame{CMD_REGISTER, value}.Encode());
            }
            return bytes;
        case 4:
            bytes = AgentFrame{CMD_REGISTER, value}.Encode();
            Add(bytes, AgentFrame{CMD_ANSWER, dice.Bytes(kAnswerBytes)}.Encode());
            return bytes;
        default:
            bytes = AgentFrame{CMD_REGISTER, value}.Encode();
            bytes.resize(1 + dice.Below(static_cast<std::uint32_t>(bytes.size())));
            return bytes;
    }
}

bool IsRegistered(const CTool& tool) {
    PeerBytes value(sizeof(std::uint32_t));
    StoreLe32(value.data(), kRegisterValue);
    CPeerSocket socket = ConnectFrom("127.0.0.1", tool.Port());
    socket.Send(AgentFrame{CMD_REGISTER, value}.Encode());
    return socket.ReceiveFrame(&CBuff::CheckFeFrame).has_value();
}

// nSessions of what pfnHostile makes up, an honest one among 1000.
template <typename Hostile, typename Honest>
bool AbuseTool(const char* szWhat, CTool& tool, std::uint64_t nSessions, CDice& dice,
               const Hostile& hostile, const Honest& honest) {
    constexpr std::uint64_t kHonestEach = 1000;
    CWatch watch(szWhat, tool.Pid(), kToolKb);
    const std::uint16_t wPort = tool.Port();
    std::uint64_t nHonest = 0;
    for (std::uint64_t n = 0; n < nSessions; ++n) {
        CPeerSocket socket =
            ConnectFrom(fmt::format("127.0.{}.{}", 1 + dice.Below(4), 1 + dice.Below(250)), wPort);
        SendWhatGoes(socket, hostile(dice));
        if (n % kAwaitEach == 0) {
            static_cast<void>(socket.AwaitEnd(20));  // what it waits for may never come
        }
        socket.Reset();
        if (n % kHonestEach == kHonestEach - 1) {
            if (!honest(tool)) {
                throw std::runtime_error(fmt::format("{}: an honest peer is kept out", szWhat));
            }
            ++nHonest;
        }
        watch.Step(n, nSessions);
    }
    const bool bGood =
        watch.Report(fmt::format("{} sessions, {} honest among them", nSessions, nHonest));
    return tool.Stop() && bGood;
}

}  // namespace

bool AbuseReceive(const AbuseScale& scale, std::uint64_t nSeed) {
    CDice dice(nSeed);
    CTool tool("receive --port 0 --into got --get a --max-folders-each 5", "listens on");
    return AbuseTool("receive", tool, scale.Sessions(), dice, HostileSession,
                     [&](const CTool& served) {
                         std::remove(tool.Path("/got/127.0.0.5/a").c_str());
                         return BringsItsFile(served);
                     });
}

bool AbuseAgent(const AbuseScale& scale, std::uint64_t nSeed) {
    CDice dice(nSeed);
    CTool tool("agent --port 0", "listens on");
    return AbuseTool("agent", tool, scale.Sessions(), dice, HostileLink, IsRegistered);
}
