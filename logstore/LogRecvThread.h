// The intake: receives every record of the appliance as a datagram, checks it, stores it in the
// day's file or hands it to the console, and passes copies to the upload sessions that want it. It
// owns these sessions, at most one in each slot: starts them for the agent's requests and answers
// the agent for those that fail.
//
// Threads: main constructs, fills in and initialises the object, then everything runs on the intake
// thread; Stop() is main's. The console's state and what an upload session wants are read across
// threads, as their owners' headers say.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "core/LogClientEntry.h"
#include "core/ThreadMsg.h"
#include "link/UploadThread.h"
#include "logstore/DatagramBatch.h"
#include "logstore/Led.h"
#include "logstore/LogRecord.h"
#include "support/UniqueFd.h"

class CLogFile;

// Fills byCopy with what an upload session gets of a record: head, text and a NUL, 21 to 300 bytes.
// A text without NUL is cut by one byte to make room for it. Returns the number of bytes.
std::size_t MakeUploadCopy(const LogRecord& record, std::uint8_t (&byCopy)[kRecordBytes]);

class CLogRecvThread {
public:
    CLogRecvThread() = default;
    virtual ~CLogRecvThread();  // closes the socket
    CLogRecvThread(const CLogRecvThread&) = delete;
    CLogRecvThread& operator=(const CLogRecvThread&) = delete;

    // Before the thread starts. pLogFile is not owned and outlives the thread.
    void SetLogFile(CLogFile* pLogFile) { m_pLogFile = pLogFile; }
    void AddLogClient(const LogClientEntry& entry) { m_listLogClient.push_back(entry); }

    // Opens the UDP socket on every interface. 0: done; 5: no socket; 10: the port cannot be bound.
    int Init(std::uint16_t wPort);

    // The thread's body; returns 0 at a quit message, after Stop(), or when receiving fails for
    // good.
    int Run();

    // Ends Run() at once, or when it begins. From any thread.
    void Stop();

    // Sends bytes from the intake's socket to dwHost and wPort, host byte order. 0: all went out;
    // otherwise what sendto returned.
    int UdpSend(std::uint32_t dwHost, std::uint16_t wPort, const void* pData, std::size_t nLen);

private:
    CUniqueFd MovePipeBehindSocket();
    int WaitForInput(fd_set& setReady);
    bool DrainPipe();
    bool ReceiveDatagrams();
    void HandleBatch();
    void HandleOther(std::size_t nAt);
    static bool IsValid(const LogRecord& record);
    bool IsOrdinary(std::size_t nAt) const;
    void HandleRealTime(const LogRecord& record);
    static void PassToConsole(const LogRecord& record);
    void TellClientToStop(std::int32_t nIndex);
    void HandleOrdinary(const LogRecord* pRecords, std::size_t nRecords);

    // UploadSlots.cpp: the upload sessions.
    int OnMsg(std::uint32_t wParam, std::uint32_t lParam);
    void OnUploadEnded(const std::vector<std::uint8_t>& notice);
    void OnHlogRequest(const std::vector<std::uint8_t>& request);
    int FindFreeUploadSlot() const;
    bool StartUploadThread(int nSlot, std::uint32_t nRequestID, const RequestBlock& byRequest);
    void EndUpload(int nSlot, std::uint32_t nReason);
    void EndLostUploads();
    void StopUploadThread(int nSlot);
    void StopAllUploadThreads();
    void PassToUploads(const LogRecord& record);
    void TellUploads();

    CLogFile* m_pLogFile = nullptr;
    std::list<LogClientEntry> m_listLogClient;  // in the order of the configuration
    std::atomic<std::int32_t> m_nQuit{0};
    int m_nSocket = -1;
    int m_nPipe = -1;  // where this thread reads g_nLogRecvThreadID; valid in Run
    std::unique_ptr<CUploadThread> m_pUploadThread[kUploadSlots];  // slot i uses upload pipe i
    CPipeReader m_PipeReader;
    CDatagramBatch m_Batch;
    CLed m_Led;
};
