// The world around the code under test, on one thread: while an object of it is there, the system
// calls with which a thread of the service waits, connects, listens, sends datagrams, asks the time
// and starts commands come here (the linker wraps them, see CMakeLists.txt), and reading and
// writing go to real local sockets whose other ends the object has. Where the code waits and
// nothing is ready, the script of the input does its next step. So a run() of the service takes an
// input from begin to end without time, network or other threads. All that may differ from one run
// to the next is how the kernel cuts up a stream.
//
// Threads: the one that made the object; calls of others reach the real system.
#pragma once

#include <sys/select.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "support/UniqueFd.h"

// How the code's attempts to connect end.
enum class EConnect : std::uint8_t { kDone, kLater, kFailsLater, kRefused, kToItself };

// A datagram that the code sent.
struct SentDatagram {
    std::uint32_t dwHost;  // host byte order, as the port
    std::uint16_t wPort;
    std::string strBytes;
};

// The other end of a connection or of a bound datagram socket of the code.
class CPeerEnd {
public:
    explicit CPeerEnd(int nSocket) : m_Socket(nSocket) {}

    // Sends what there is room for; a datagram whole or not at all. True when all of it went.
    bool Send(const std::string& strBytes) const;

    // Reads up to nMost bytes that are there and appends them to Received().
    void Read(std::size_t nMost = SIZE_MAX);

    // True when the code has closed the connection and all of it was read.
    bool IsAtEnd() const { return m_bEnd; }

    // Ends the sending direction; closing is the destructor's.
    void HalfClose() const;

    const std::string& Received() const { return m_strReceived; }

private:
    CUniqueFd m_Socket;
    std::string m_strReceived;
    bool m_bEnd = false;
};

class CFakeSystem {
public:
    // fnStep: the next step of the script; at its end it tells the code to stop, and does so each
    // time that it is called again. One object at a time.
    explicit CFakeSystem(std::function<void()> fnStep);
    ~CFakeSystem();
    CFakeSystem(const CFakeSystem&) = delete;
    CFakeSystem& operator=(const CFakeSystem&) = delete;

    // What the script may change, from now on.
    void PlanConnect(EConnect ePlan) { m_eConnect = ePlan; }
    void PlanBind(bool bWorks) { m_bBindWorks = bWorks; }
    void PlanSendTo(bool bWorks) { m_bSendToWorks = bWorks; }
    void PlanShell(bool bWorks, std::string strOutput) {
        m_bShellWorks = bWorks;
        m_strShellOutput = std::move(strOutput);
    }
    // Threads cannot be created, or run to their end before the call returns.
    void PlanThreads(bool bRun) { m_bThreadsRun = bRun; }
    void KnockAtListener() { ++m_nKnocks; }
    void PassSeconds(std::time_t nSeconds) { m_tNow += nSeconds; }

    // Ends of the code's connections, oldest first; the script removes those it has done with.
    std::deque<CPeerEnd>& Peers() { return m_Peers; }
    const std::deque<CPeerEnd>& Peers() const { return m_Peers; }

    // What the code did.
    const std::vector<SentDatagram>& Sent() const { return m_Sent; }
    const std::vector<std::string>& Commands() const { return m_Commands; }

    // The system calls.
    int Select(int nDescriptors, fd_set* pRead, fd_set* pWrite);
    int Connect(int nSocket);
    int Bind(int nSocket);
    int Listen(int nSocket);
    int Accept(int nSocket, int nFlags);
    int SocketError();
    bool IsToItself() const { return m_eConnect == EConnect::kToItself; }
    ssize_t SendTo(const void* pData, std::size_t nLen, const void* pAddress);
    int Spawn(pid_t* pChild, const char* szCommand);
    std::FILE* OpenShell(const char* szCommand);
    int RunThread(void* (*pfnBody)(void*), void* pArgument) const;
    std::time_t Now() const { return m_tNow; }

    // The moment at which every input begins, 22 November 2026, 14:05:09 UTC.
    static constexpr std::time_t kBegin = 1795356309;

private:
    int MakePair(int nType);
    bool Plug(int nSocket, int nType);
    int Ready(int nDescriptors, fd_set& setRead, fd_set* pWrite) const;

    std::function<void()> m_fnStep;
    EConnect m_eConnect = EConnect::kDone;
    bool m_bBindWorks = true;
    bool m_bSendToWorks = true;
    bool m_bShellWorks = true;
    bool m_bThreadsRun = false;
    bool m_bConnectFailed = false;  // the error waits to be asked for
    std::string m_strShellOutput;
    int m_nListener = -1;
    int m_nKnocks = 0;
    int m_nIdleWaits = 0;  // in a row
    std::time_t m_tNow = kBegin;
    std::deque<CPeerEnd> m_Peers;
    std::vector<SentDatagram> m_Sent;
    std::vector<std::string> m_Commands;
};
