// The command link: the one TCP connection to the management agent on this machine. It registers
// the service, keeps itself alive, takes history requests to the intake and answers back to the
// agent (docs/protocols.md, "Command link"). A link that is down is tried again every 3 seconds;
// nothing is stored for later meanwhile. It starts no upload session itself: the intake does.
//
// Threads: main constructs the object; Run() is the command-link thread; Stop() is main's.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "core/OwnedTimer.h"
#include "core/TcpLink.h"
#include "core/ThreadMsg.h"

// States of the link.
constexpr std::int32_t LINK_STATE_CLOSED = 0;       // no connection
constexpr std::int32_t LINK_STATE_CONNECTING = 1;   // guarded by timer 2
constexpr std::int32_t LINK_STATE_REGISTERING = 2;  // the answer is awaited, guarded by timer 3
constexpr std::int32_t LINK_STATE_ESTABLISHED = 3;

// What the agent wants of upload sessions. Written by the command link, read by sessions as they
// start.
extern std::atomic<std::uint32_t> g_nUploadSrcIP;  // local address to connect from; 0: any
extern std::atomic<std::uint8_t> g_byNodeCode;     // reported to every receiver

class CCmdThread {
public:
    CCmdThread();
    virtual ~CCmdThread() = default;
    CCmdThread(const CCmdThread&) = delete;
    CCmdThread& operator=(const CCmdThread&) = delete;

    // The thread's body; returns 0 at a quit message or after Stop().
    int Run();

    // Ends Run() within about 100 ms, also when it has not begun yet. Returns 0.
    int Stop();

private:
    bool Turn();
    void OnPipeMsg(const PipeMsg& msg);

    void Connect();
    void OnConnected();
    void OnRead();
    void OnWrite();
    bool HandleFrame(const std::uint8_t* pFrame, std::int32_t nLen);
    bool OnRegisterAck(const std::uint8_t* pPayload, std::uint32_t nLen);
    bool OnParameters(const std::uint8_t* pPayload, std::uint32_t nLen) const;
    bool OnHlogRequest(const std::uint8_t* pPayload, std::uint32_t nLen) const;
    void SendFrame(const std::vector<std::uint8_t>& frame);
    void SendKeepAlive();
    void OnTimer(std::uint32_t nTimerID);
    void OnQueueMsg(std::uint32_t wParam, std::uint32_t lParam);
    void OnClose();
    void Close();

    void EnterGuarded(std::int32_t nState);

    std::atomic<std::int32_t> m_bRun{1};
    std::int32_t m_nState = LINK_STATE_CLOSED;
    COwnedTimer m_pTimer;       // guard of states 1 and 2; stopped in the others
    COwnedTimer m_pRetryTimer;  // timers 0 and 1 run as long as the thread
    COwnedTimer m_pKeepAliveTimer;
    CTcpLink m_Link;
    CPipeReader m_PipeReader;
    const CTcpLink::Handlers m_Handlers;
};
