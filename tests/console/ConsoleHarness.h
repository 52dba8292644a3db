// A console on a thread of its own, with what lies around it: the circle buffer, five log clients
// that share a control port, and a private root for the files it reads and writes.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <array>
#include <bit>
#include <thread>

#include "console/CommunicatThread.h"
#include "core/CircleBuffer.h"
#include "peers/LogClient.h"
#include "peers/PrivateRoot.h"
#include "peers/Service.h"
#include "peers/Telnet.h"

inline const std::string kHelpHead =
    "\r\nSupport Command as following:\r\n?\t\thelp\r\nq/Q:\t\tQuit the telnet\r\n"
    "set num1 num2\tnum2 must between 1 and 65535,num1 defines as follow:\r\n\t\t";
inline const std::string kHelp = kHelpHead + "alpha=0,beta=1,gamma=2,delta=3\r\n\t\teps=4,\r\n";
inline const std::string kSetReply =
    "\r\nCommand parse success!\r\nPress 'x' to quit send log. \r\n";

// The bytes of a real-time frame in hexadecimal.
inline std::string FrameHex(int nIndex, int nValue) {
    return fmt::format("4719582618000000{0:02x}00000004000000{0:02x}000000{1:02x}{2:02x}0000",
                       nIndex, nValue % 256, nValue / 256);
}

class ConsoleTest : public PrivateRoot {
protected:
    void SetUp() override {
        PrivateRoot::SetUp();
        static const bool bPipes = CreateMsgqueue();
        ASSERT_TRUE(bPipes);
        CPipeReader reader;  // of what the test before left behind
        for (PipeMsg msg{}; reader.Next(g_nMsgPipe[0], msg);) {
        }
        ASSERT_EQ(g_CircleBuffer.Init(102400), 1);
        const std::int32_t nPort = m_wControlPort;  // of a port the low 16 bits count
        const LogClientEntry entries[] = {
            {0, nPort, "alpha"}, {1, nPort, "beta"},        {2, nPort, "gamma"},
            {3, nPort, "delta"}, {4, nPort + 65536, "eps"},
        };
        for (const LogClientEntry& entry : entries) {
            m_Console.AddLogClient(entry);
        }
    }
    void TearDown() override {
        m_Console.Stop();
        if (m_thread.joinable()) {
            m_thread.join();
        }
        PrivateRoot::TearDown();
    }

    void Start() {
        ASSERT_EQ(m_Console.Init(m_wPort), 0);
        m_thread = std::thread([this] { m_Console.ThreadRun(); });
    }

    CTelnet LogIn(int nReceiveBuffer = 0) const {
        CTelnet telnet(m_wPort, nReceiveBuffer);
        telnet.LogIn();
        return telnet;
    }
    bool HasNoClient() const {
        return WaitUntil([this] { return m_Console.GetStatus() == WAIT_CONNECT; });
    }

    // Returns when the console has read all that the served client has sent so far: in one turn a
    // new client comes before the served one's bytes, and the second refusal is a turn later.
    void LetConsoleRead() const {
        for (int nTurn = 0; nTurn < 2; ++nTurn) {
            ASSERT_EQ(CTelnet(m_wPort).ReadToEnd(), "you.<end>");
        }
    }

    // The next control frame in hexadecimal; empty when none comes within nLimitMs.
    std::string NextFrame(int nLimitMs = 10000) {
        const auto frame = m_LogClient.ReceiveControl(nLimitMs);
        using Bytes = std::array<std::uint8_t, sizeof(LogcCtrlFrame)>;
        return frame ? fmt::format("{:02x}", fmt::join(std::bit_cast<Bytes>(*frame), "")) : "";
    }

    // Hands the first nLen bytes of a record to the console as the intake does. False when there is
    // no room for them.
    static bool Post(std::int32_t nIndex, const std::string& strText,
                     std::int32_t nType = kRealTimeType, std::uint32_t nLen = kRecordBytes) {
        LogRecord record{LOG_RECORD_MAGIC, nIndex, nType, 2009, 3, 7, 14, 5, 9, 0, {}};
        strText.copy(record.szText, sizeof(record.szText));
        const CLockGuard guard(g_CircleBuffer);
        if (g_CircleBuffer.GetFree() < nLen) {
            return false;
        }
        g_CircleBuffer.Write(&record, nLen);
        PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED);  // a full pipe wakes it as well
        return true;
    }

    // True when the newest trace ends so within nLimitMs.
    bool IsTraced(const std::string& strEnd, int nLimitMs = 10000) const {
        return WaitUntil([&] { return Trace().ends_with(strEnd); }, nLimitMs);
    }

    CCommunicatThread m_Console;
    const std::uint16_t m_wPort = FreePort(SOCK_STREAM);
    const std::uint16_t m_wControlPort = FreePort(SOCK_DGRAM);
    CLogClient m_LogClient{m_wControlPort, m_wControlPort};  // only receives
    std::thread m_thread;
};
