// A console on a thread of its own, with everything around it: telnet clients, a log client's
// control port, the circle buffer, and a private root for the files it reads and writes.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "console/CommunicatThread.h"
#include "core/UniqueFd.h"

// True as soon as condition() is, asked every few milliseconds; false when it is not in 10 s.
bool WaitUntil(const std::function<bool()>& condition);

// TCP port of the loopback interface that nobody uses at this moment.
std::uint16_t FreeTcpPort();

class CTelnet {
public:
    // Connects to 127.0.0.1. nReceiveBuffer: bytes the kernel keeps for us, about; 0: its own
    // choice.
    explicit CTelnet(std::uint16_t wPort, int nReceiveBuffer = 0);

    void Send(const std::string& strBytes);

    // The next nLen bytes, or fewer when the stream ends or nothing comes for 10 s.
    std::string Read(std::size_t nLen);
    // The bytes up to and with strEnd; fewer as above.
    std::string ReadUntil(const std::string& strEnd);
    // All bytes up to the end of the stream, then "<end>", or "<reset>" or "<silence>" as it comes.
    std::string ReadToEnd();

private:
    const char* ReadPiece(std::string& strTo, std::size_t nMax);  // null, or how it ended

    CUniqueFd m_Socket;
};

// A log client's control port.
class CControlPort {
public:
    CControlPort();
    std::uint16_t Port() const { return m_wPort; }
    // The next datagram in hexadecimal, "4719..."; empty when none comes in 10 s.
    std::string ReadHex();
    bool IsSilent();  // nothing has come

private:
    CUniqueFd m_Socket;
    std::uint16_t m_wPort = 0;
};

// The expected datagram of a real-time frame, in hexadecimal.
std::string FrameHex(std::uint8_t byIndex, std::uint16_t wValue);

class ConsoleTest : public testing::Test {
protected:
    ConsoleTest();
    ~ConsoleTest() override;

    // Five log clients, alpha 0 to eps 4, with the control port of m_Control; what kHelp shows.
    void AddFiveClients();
    void AddClient(std::int32_t nIndex, std::int32_t nPort, const std::string& strName);
    void Start();
    void Stop();

    // Connects, and logs in over a welcome that is not looked at.
    std::unique_ptr<CTelnet> Connect(int nReceiveBuffer = 0);
    std::unique_ptr<CTelnet> LogIn(int nReceiveBuffer = 0);
    std::unique_ptr<CTelnet> Watch(const std::string& strSet, int nReceiveBuffer = 0);

    // Returns when the console has read all that the served client has sent so far.
    void LetConsoleRead();

    static LogRecord MakeRecord(std::int32_t nIndex, const std::string& strText);
    // Hands nLen bytes to the console as the intake does. False when there is no room for them.
    static bool Post(const void* pData, std::uint32_t nLen);
    static bool Post(const LogRecord& record) { return Post(&record, sizeof(record)); }
    static std::uint32_t Waiting();  // bytes in the circle buffer

    std::string Path(const std::string& strPath) const { return m_strRoot + strPath; }
    void WriteFile(const std::string& strPath, const std::string& strContent) const;
    std::string Trace() const;  // the trace file

    CCommunicatThread m_Console;
    CControlPort m_Control;
    std::uint16_t m_wPort;

private:
    std::string m_strRoot;
    bool m_bStarted = false;
    pthread_t m_thread{};
};

extern const std::string kHelpHead;
extern const std::string kHelp;  // with the five clients
extern const std::string kSetReply;
