// One history-upload session: connects to a receiver, introduces itself, then sends stored files
// and forwards subscribed records until the connection ends (docs/protocols.md, "History upload").
// At its end it tells the intake why. It neither picks its slot nor answers the agent: the intake
// does, which owns it.
//
// Threads: the intake makes, starts, stops, joins and destroys a session, and asks WantsRecord and
// calls PassRecord; everything else runs on the session's thread. State and subscription are read
// by the intake without a lock, so a record that races with a change is judged by the old or the
// new value.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "core/OwnedTimer.h"
#include "core/TcpLink.h"
#include "core/ThreadMsg.h"
#include "link/LinkMsg.h"
#include "link/UploadFrame.h"
#include "logstore/LogRecord.h"

// States of a session.
constexpr std::int32_t UPLOAD_STATE_IDLE = 0;        // made, not connecting
constexpr std::int32_t UPLOAD_STATE_ENDED = 1;       // over; the intake is told
constexpr std::int32_t UPLOAD_STATE_CONNECTING = 2;  // guarded by timer 4
constexpr std::int32_t UPLOAD_STATE_HELLO = 3;       // UM_HELLO_ACK is awaited, timer 5
constexpr std::int32_t UPLOAD_STATE_INFO = 4;        // UM_INFO_ACK is awaited, timer 6
constexpr std::int32_t UPLOAD_STATE_READY = 5;       // serves, and forwards subscribed records
constexpr std::int32_t UPLOAD_STATE_SENDING = 6;     // a file is being sent

class CUploadThread {
public:
    // nSlot: 0 to kUploadSlots - 1, which picks the session's pipe. byRequest: the block of request
    // nRequestID.
    CUploadThread(std::int32_t nSlot, std::uint32_t nRequestID, const RequestBlock& byRequest);
    virtual ~CUploadThread();  // the thread must have ended
    CUploadThread(const CUploadThread&) = delete;
    CUploadThread& operator=(const CUploadThread&) = delete;

    // Starts the thread. False: it cannot be created.
    [[nodiscard]] bool Start();

    // The thread's body; returns 0.
    int Run();

    // Ends Run() at once, and its waiting for shell commands within about 10 ms.
    void Stop();

    // Waits for the end of the thread, after Start and Stop.
    void Join() const;

    std::uint32_t GetRequestID() const { return m_nRequestID; }
    const RequestBlock& GetRequest() const { return m_byRequest; }

    // Why the session ended, one of UPLOAD_END_...; -1 as long as it has not.
    std::int32_t GetEndReason() const { return m_nEndReason; }

    // For client 0 to 99 and type 0 to 3: true when the session is ready, its receiver subscribed
    // to such records, and the message queue has room to spare, also for the other sessions.
    // bAlone: there is no other session, so this one may hold all of the queue.
    bool WantsRecord(std::int32_t nIndex, std::int32_t nType, bool bAlone = false) const;

    // Hands the session a record that it wants, nLen bytes. TellRecords() tells it of all that it
    // was handed since. One that the queue or the session's pipe has no room for is lost.
    void PassRecord(const std::uint8_t* pRecord, std::int32_t nLen);
    void TellRecords();

private:
    using Payload = const std::uint8_t*;

    // Bytes of the send ring that records and file data leave free for answers.
    static constexpr std::int32_t kRingReserve = 100;

    // UploadThread.cpp: connection, states, frames.
    bool Turn();
    void OnPipeMsg(const PipeMsg& msg);
    bool Connect();
    void OnConnected();
    void OnRead();
    void OnWrite();
    bool HandleFrame(std::uint8_t* pFrame, std::int32_t nLen);
    bool SendFrame(const std::vector<std::uint8_t>& frame);
    void OnQueueMsg(std::uint32_t wParam, std::uint32_t lParam);
    void ForwardRecord(const std::vector<std::uint8_t>& record);
    void OnTimer(std::uint32_t nTimerID);
    void OnClose();
    void Release();
    void SendQuit(std::uint8_t byReason);
    void EnterGuarded(std::int32_t nState);
    std::int32_t ReasonOfEnd() const;

    // UploadMessages.cpp: a handler for each message from the receiver; false ends the session.
    struct Handler;
    bool OnMessage(Payload pPayload, std::size_t nLen);
    bool DoHelloAck(Payload pPayload);
    bool DoInfoAck(Payload pPayload);
    bool DoGetHLog(Payload pPayload);
    bool DoCancel(Payload pPayload);
    bool DoSubscribe(Payload pPayload);
    bool DoSetLanguage(Payload pPayload);
    bool DoReboot(Payload pPayload);
    void SendInfo();
    std::uint8_t OpenHLog(const std::string& strName, std::uint32_t dwStart);
    bool ReadFileData();
    std::int32_t NextReadBytes() const;
    void CloseFile();

    const std::int32_t m_nSlot;
    const std::uint32_t m_nRequestID;
    const RequestBlock m_byRequest;
    pthread_t m_hThread{};                       // valid after Start
    std::atomic<std::int32_t> m_bStop{0};        // set by the intake
    std::atomic<std::int32_t> m_nEndReason{-1};  // written by the session's thread
    std::atomic<std::int32_t> m_nPending{0};     // records handed over and not taken yet; both
    std::atomic<std::int32_t> m_nState{UPLOAD_STATE_IDLE};  // written by the session's thread
    std::atomic<bool> m_bRingFull{false};  // a record found no room, and nothing was sent since
    std::atomic<std::uint8_t> m_byRealTimeMask[kSubscribeTableBytes] = {};  // 1: wanted; the same
    std::array<PipeMsg, kMostAheadOfHeader> m_Untold{};  // what the intake has not told yet
    std::size_t m_nUntold = 0;
    bool m_bRecordQueued = false;    // since the last sending
    COwnedTimer m_pTimer;            // guard of states 2 to 4; stopped in the others
    std::int32_t m_nResult = -1;     // end reason decided by a refusal; -1: none
    std::int32_t m_nFile = -1;       // the file being sent; -1: none
    std::int32_t m_nFileSize = 0;    // its size when the request was answered
    std::int32_t m_nFileOffset = 0;  // of the next byte to read
    std::uint8_t m_szFileBuf[65536];
    CTcpLink m_Link;
    CPipeReader m_PipeReader;
    const CTcpLink::Handlers m_Handlers;
};
