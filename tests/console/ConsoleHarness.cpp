#include "console/ConsoleHarness.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "core/CircleBuffer.h"
#include "core/Process.h"

namespace {

namespace fs = std::filesystem;

constexpr int kLimitMs = 10000;

sockaddr_in Loopback(std::uint16_t wPort) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(wPort);
    return address;
}

void Check(bool bGood, const char* szWhat) {
    if (!bGood) {
        throw std::system_error(errno, std::generic_category(), szWhat);
    }
}

// Binds nSocket to a free port and returns that.
std::uint16_t BindFree(int nSocket) {
    sockaddr_in address = Loopback(0);
    socklen_t nLen = sizeof(address);
    auto* pAddress = reinterpret_cast<sockaddr*>(&address);
    Check(bind(nSocket, pAddress, nLen) == 0, "bind");
    Check(getsockname(nSocket, pAddress, &nLen) == 0, "getsockname");
    return ntohs(address.sin_port);
}

bool IsReadable(int nSocket, int nMs) {
    pollfd ready{nSocket, POLLIN, 0};
    return poll(&ready, 1, nMs) == 1;
}

// The root of this process, with a blank in its name: paths in shell commands must stand that. The
// service reads the variable once, so every test has the same.
const std::string& Root() {
    static const std::string strRoot = [] {
        std::string strTemplate = (fs::temp_directory_path() / "tarvik console XXXXXX").string();
        Check(mkdtemp(strTemplate.data()) != nullptr, "mkdtemp");
        setenv("TARVIK_ROOT", strTemplate.c_str(), 1);
        return strTemplate;
    }();
    return strRoot;
}

void* RunConsole(void* pConsole) {
    static_cast<CCommunicatThread*>(pConsole)->ThreadRun();
    return nullptr;
}

}  // namespace

const std::string kHelpHead =
    "\r\nSupport Command as following:\r\n?\t\thelp\r\nq/Q:\t\tQuit the telnet\r\n"
    "set num1 num2\tnum2 must between 1 and 65535,num1 defines as follow:\r\n\t\t";
const std::string kHelp = kHelpHead + "alpha=0,beta=1,gamma=2,delta=3\r\n\t\teps=4,\r\n";
const std::string kSetReply = "\r\nCommand parse success!\r\nPress 'x' to quit send log. \r\n";

bool WaitUntil(const std::function<bool()>& condition) {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(kLimitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > tEnd) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::uint16_t FreeTcpPort() {
    const CUniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return BindFree(probe.Get());
}

CTelnet::CTelnet(std::uint16_t wPort, int nReceiveBuffer)
    : m_Socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (nReceiveBuffer > 0) {
        setsockopt(m_Socket.Get(), SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
    }
    const int nOne = 1;  // each Send is a segment of its own
    setsockopt(m_Socket.Get(), IPPROTO_TCP, TCP_NODELAY, &nOne, sizeof(nOne));
    const sockaddr_in address = Loopback(wPort);
    Check(
        connect(m_Socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
        "connect");
}

void CTelnet::Send(const std::string& strBytes) {
    Check(send(m_Socket.Get(), strBytes.data(), strBytes.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(strBytes.size()),
          "send");
}

const char* CTelnet::ReadPiece(std::string& strTo, std::size_t nMax) {
    char szPiece[4096];
    if (!IsReadable(m_Socket.Get(), kLimitMs)) {
        return "<silence>";
    }
    const ssize_t nRead = recv(m_Socket.Get(), szPiece, std::min(nMax, sizeof(szPiece)), 0);
    if (nRead <= 0) {
        return nRead == 0 ? "<end>" : "<reset>";
    }
    strTo.append(szPiece, static_cast<std::size_t>(nRead));
    return nullptr;
}

std::string CTelnet::Read(std::size_t nLen) {
    std::string strText;
    while (strText.size() < nLen && ReadPiece(strText, nLen - strText.size()) == nullptr) {
    }
    return strText;
}

std::string CTelnet::ReadUntil(const std::string& strEnd) {
    std::string strText;
    while (!strText.ends_with(strEnd) && ReadPiece(strText, 1) == nullptr) {
    }
    return strText;
}

std::string CTelnet::ReadToEnd() {
    std::string strText;
    const char* szEnd = nullptr;
    while (szEnd == nullptr) {
        szEnd = ReadPiece(strText, SIZE_MAX);
    }
    return strText + szEnd;
}

CControlPort::CControlPort()
    : m_Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), m_wPort(BindFree(m_Socket.Get())) {
}

std::string CControlPort::ReadHex() {
    std::uint8_t byFrame[64];
    std::string strHex;
    if (IsReadable(m_Socket.Get(), kLimitMs)) {
        const ssize_t nLen = recv(m_Socket.Get(), byFrame, sizeof(byFrame), 0);
        for (ssize_t i = 0; i < nLen; ++i) {
            strHex += "0123456789abcdef"[byFrame[i] >> 4];
            strHex += "0123456789abcdef"[byFrame[i] & 15];
        }
    }
    return strHex;
}

bool CControlPort::IsSilent() {
    return !IsReadable(m_Socket.Get(), 0);
}

std::string FrameHex(std::uint8_t byIndex, std::uint16_t wValue) {
    char szHex[49];
    std::snprintf(szHex, sizeof(szHex), "4719582618000000%02x00000004000000%02x000000%02x%02x0000",
                  byIndex, byIndex, wValue & 255, wValue >> 8);
    return szHex;
}

ConsoleTest::ConsoleTest() : m_wPort(FreeTcpPort()), m_strRoot(Root()) {
    fs::create_directories(Path("/var/log"));
    EXPECT_TRUE(CreateMsgqueue());
    EXPECT_EQ(g_CircleBuffer.Init(102400), 1);
    const CLockGuard guard(g_CircleBuffer);
    g_CircleBuffer.Skip(g_CircleBuffer.GetUsed());
}

ConsoleTest::~ConsoleTest() {
    Stop();
    fs::remove_all(m_strRoot);
}

void ConsoleTest::AddFiveClients() {
    std::int32_t nIndex = 0;
    for (const char* szName : {"alpha", "beta", "gamma", "delta", "eps"}) {
        AddClient(nIndex++, m_Control.Port(), szName);
    }
}

void ConsoleTest::AddClient(std::int32_t nIndex, std::int32_t nPort, const std::string& strName) {
    LogClientEntry entry;
    entry.nIndex = nIndex;
    entry.nPort = nPort;
    entry.SetAppName(strName);
    m_Console.AddLogClient(entry);
}

void ConsoleTest::Start() {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    m_bStarted = StartThread(m_thread, "test.console", RunConsole, &m_Console) == 0;
    ASSERT_TRUE(m_bStarted);
}

void ConsoleTest::Stop() {
    m_Console.Stop();
    if (m_bStarted) {
        pthread_join(m_thread, nullptr);
        m_bStarted = false;
    }
}

std::unique_ptr<CTelnet> ConsoleTest::Connect(int nReceiveBuffer) {
    auto pClient = std::make_unique<CTelnet>(m_wPort, nReceiveBuffer);
    EXPECT_THAT(pClient->ReadUntil("Password:"), testing::EndsWith("Password:"));
    return pClient;
}

std::unique_ptr<CTelnet> ConsoleTest::LogIn(int nReceiveBuffer) {
    auto pClient = Connect(nReceiveBuffer);
    pClient->Send("quietharbor\r\n");
    const std::string strHelp = m_Console.BuildHelpText();
    EXPECT_EQ(pClient->Read(strHelp.size()), strHelp);
    return pClient;
}

std::unique_ptr<CTelnet> ConsoleTest::Watch(const std::string& strSet, int nReceiveBuffer) {
    auto pClient = LogIn(nReceiveBuffer);
    pClient->Send(strSet + "\r\n");
    EXPECT_EQ(pClient->Read(kSetReply.size()), kSetReply);
    EXPECT_NE(m_Control.ReadHex(), "");
    return pClient;
}

void ConsoleTest::LetConsoleRead() {
    // In one turn a new client comes before the served one's bytes; the second refusal is a turn
    // later.
    for (int nTurn = 0; nTurn < 2; ++nTurn) {
        EXPECT_EQ(CTelnet(m_wPort).ReadToEnd(), "you.<end>");
    }
}

LogRecord ConsoleTest::MakeRecord(std::int32_t nIndex, const std::string& strText) {
    LogRecord record{LOG_RECORD_MAGIC, nIndex, kRealTimeType, 2009, 3, 7, 14, 5, 9, 0, {}};
    strText.copy(record.szText, sizeof(record.szText));
    return record;
}

bool ConsoleTest::Post(const void* pData, std::uint32_t nLen) {
    const CLockGuard guard(g_CircleBuffer);
    if (g_CircleBuffer.GetFree() < nLen) {
        return false;
    }
    g_CircleBuffer.Write(pData, nLen);
    PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED);  // a full pipe wakes the console as well
    return true;
}

std::uint32_t ConsoleTest::Waiting() {
    const CLockGuard guard(g_CircleBuffer);
    return g_CircleBuffer.GetUsed();
}

void ConsoleTest::WriteFile(const std::string& strPath, const std::string& strContent) const {
    fs::create_directories(fs::path(Path(strPath)).parent_path());
    std::ofstream(Path(strPath), std::ios::binary) << strContent;
}

std::string ConsoleTest::Trace() const {
    std::ostringstream content;
    content << std::ifstream(Path("/var/log/logs.txt")).rdbuf();
    return content.str();
}
