// The debug console: a telnet listener that serves one client at a time. The client logs in with
// the password, picks a log client with "set" and then sees that client's real-time records as
// lines of text (docs/protocols.md, "Debug console" and "Control frame").
//
// It does not receive records: the intake puts them into g_CircleBuffer and wakes the console
// through g_nMsgPipe. It does no telnet negotiation: bytes are taken as they come.
//
// It also keeps the display language, because it knows the log clients that are told of a change.
//
// Threads: main constructs, configures and initialises the object, then starts ThreadRun on the
// console thread, which runs everything else but the language operations: those are called from
// upload threads, several at a time, and share with the console thread only what no longer changes
// (m_listLogc, m_nUdpSocket). Stop and GetStatus may be called from any thread.
#pragma once

#include <sys/select.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "core/Buff.h"
#include "core/Lock.h"
#include "core/LogClientEntry.h"
#include "core/ThreadMsg.h"
#include "logstore/LogRecord.h"

// States of the console.
constexpr std::int32_t WAIT_CONNECT = 1;           // no client
constexpr std::int32_t WAIT_LOGIN = 2;             // welcome queued, the password line is awaited
constexpr std::int32_t WAIT_SEND_COMMAND = 3;      // logged in, a command line is awaited
constexpr std::int32_t SENDING_REAL_TIME_LOG = 4;  // real-time records are relayed

class CIniFile;
struct LogcCtrlFrame;

class CCommunicatThread {
public:
    CCommunicatThread();
    ~CCommunicatThread();  // the thread must have ended
    CCommunicatThread(const CCommunicatThread&) = delete;
    CCommunicatThread& operator=(const CCommunicatThread&) = delete;

    // Appends one log client; the order of the calls is the order of the help text. Before the
    // thread starts.
    void AddLogClient(const LogClientEntry& entry);

    // Idle seconds after which a logged-in client is disconnected, 120 unless set; negative for
    // never. Before the thread starts.
    void SetTimeoutDelay(std::int32_t nSeconds) { m_nTimeoutDelay = nSeconds; }

    // Listens on TCP port nPort (its low 16 bits; kDefaultConsolePort when not positive) of all
    // addresses and opens the socket for control frames. Returns 0, or -1 after a trace: the object
    // is then good for nothing but to be destroyed. Called once.
    [[nodiscard]] int Init(int nPort);

    // Body of the console thread, after a successful Init. Returns 0 once Stop was called, a quit
    // message came or select failed.
    int ThreadRun();

    // Ends ThreadRun at once, or when it begins.
    void Stop();

    // The state, one of the four above.
    std::int32_t GetStatus() const { return m_nStatus.load(); }

    // What "?" and several other replies show: the commands and the configured log clients.
    std::string BuildHelpText() const;

    // LanguageSetting.cpp, on upload threads, after a successful Init. The language is the entry
    // LANGUAGE of section "local" in the configuration file; it is read there each time. All of
    // them may wait for another upload thread that is storing it, so neither the console thread nor
    // the intake may call them. Failures are traced.

    // Stores byLanguage (LANGUAGE_CHINESE or LANGUAGE_ENGLISH), then tells every log client, in the
    // order in which they were added. Returns 0; -1 when it could not be stored: nobody is told
    // then; -3 when a client could not be reached: it is stored then, and the clients behind that
    // one are not told. (-2 stood for a frame without memory, which cannot happen.) pGiveUp: as in
    // SaveLanguageSetting.
    int SaveLanguageAndNotify(std::uint8_t byLanguage,
                              const std::atomic<std::int32_t>* pGiveUp = nullptr) EXCLUDES(m_Lock);

    // Sets byLanguage to LANGUAGE_ENGLISH when exactly "English" is stored, else to
    // LANGUAGE_CHINESE. Returns 0, or 20 when the configuration file cannot be read.
    int GetLanguageSetting(std::uint8_t& byLanguage) EXCLUDES(m_Lock);

    // Stores byLanguage and has a shell command copy the file to the persistent configuration area.
    // Returns 0, whatever became of the copy; 10 when there is no such language (not traced); 20
    // when the configuration file cannot be read; 30 when it cannot be written. It is as it was
    // unless the result is 0. pGiveUp: not 0 ends the wait for the copy, which goes on by itself.
    int SaveLanguageSetting(std::uint8_t byLanguage,
                            const std::atomic<std::int32_t>* pGiveUp = nullptr) EXCLUDES(m_Lock);

    // Sends frame to every log client, in order. Returns 0, or -1 at the first that cannot be
    // reached. Takes no lock.
    int NotifyLanguageChanged(const LogcCtrlFrame& frame);

private:
    // CommunicatThread.cpp: listener, connection, loop.
    bool BindListener();
    void Turn();
    void Dispatch(const fd_set& fdRead, const fd_set& fdWrite);
    int MsToNextDue() const;
    void RestInStream() const;
    void WatchListenerAgain();
    int OnAccept();
    int AcceptClient();
    static int RefuseClient(int nSocket);
    int ServeClient(int nSocket);
    int OnConnectionRead();
    int OnConnectionSend();
    int OnPipeMsg();
    int Close();
    int CloseAll();
    int CheckTimeout();
    int UpdateActiveTime();
    bool IsInSession() const {
        return m_nStatus >= WAIT_LOGIN && m_nStatus <= SENDING_REAL_TIME_LOG;
    }

    // Queues nLen bytes for the client, all or none of them; they leave when select says so.
    // Returns 0, or -1 after a trace when the send ring has no room for them.
    int TcpSend(const char* pData, int nLen);
    int TcpSend(const std::string& strText);

    // ConsoleSession.cpp: welcome, login, commands. The int of each is 0 to keep the connection and
    // -1 to have it closed.
    int DoWelcome();
    int ParseClientSent();
    int ParseLogin();
    int ParseCommand();
    int ParseDuringRelay();
    int AwaitMore(const char* szTraceWhenFull) const;
    std::string TakeLine(int nLen);
    int DoLogin(const std::string& strPassword);
    int DoSendRealTimeLogCmd(const std::string& strCmd);
    int DoKeyCmd(char cKey);
    int DoSetCmd(const std::string& strCmd);
    const LogClientEntry* CheckSetCmd(const std::string& strCmd, std::uint32_t& dwValue) const;
    int StartRelay(const LogClientEntry& entry, std::uint32_t dwValue);
    int SendOnFrameAndReply(const LogClientEntry& entry, std::uint32_t dwValue);
    const LogClientEntry* FindLogc(std::int32_t nIndex) const;

    // ConsoleRelay.cpp: real-time records, control frames.
    enum class RecordFate : std::uint8_t { kDone, kKept, kFailed };
    int DoPipeMsgDataArrive();
    bool RelayBatch();
    int DrainOneByOne();
    RecordFate HandleRecord(const LogRecord& record);
    RecordFate StopSender(const LogRecord& record);
    RecordFate RelayRecord(const LogRecord& record);
    int DoExitSendRealTimeLog();
    int SendRealTimeFrame(std::int32_t nIndex, std::int32_t nPort, std::uint32_t dwValue);

    // LanguageSetting.cpp, on upload threads.
    int StoreLanguage(const char* szText, const std::atomic<std::int32_t>* pGiveUp)
        EXCLUDES(m_Lock);
    bool IsStored(const char* szText) EXCLUDES(m_Lock);
    int RewriteConfiguration(const char* szText) EXCLUDES(m_Lock);
    bool LoadConfiguration(CIniFile& file) EXCLUDES(m_Lock);

    // Sends nLen bytes to dwHost and wPort, both in host byte order, in one datagram. Returns 0
    // when all of it went out, -1 without socket or data, else what sendto returned; failures are
    // traced. Called from the console thread and from upload threads.
    int UdpSend(std::uint32_t dwHost, std::uint16_t wPort, const void* pBuf, int nLen);

    int m_nConnSocket = -1;    // the client's connection; open when above 0
    int m_nListenSocket = -1;  // never reopened once closed
    int m_nUdpSocket = -1;  // open until the destructor, so that it outlives every sending thread
    std::int32_t m_nListenPort = 0;
    std::int32_t m_nLogcIndex = -1;  // the log client chosen last: index,
    std::int32_t m_nLogcPort = -1;   // control port
    char m_szLogcName[sizeof(LogClientEntry::szAppName)] = {};  // and name
    std::int64_t m_tLastActive = -1;  // wall clock, seconds; -1 until the first Close
    std::atomic<std::int32_t> m_nStatus{WAIT_CONNECT};  // written by the console thread only
    std::atomic<bool> m_bRunning{false};  // set by Init before the thread exists, cleared by any
    std::unique_ptr<CBuff> m_pSendBuff;
    std::unique_ptr<CBuff> m_pRecvBuff;
    fd_set m_fdRead;   // pipe, listener, and the connection once its welcome is queued
    fd_set m_fdWrite;  // the connection while the send ring holds data
    std::list<LogClientEntry> m_listLogc;  // only read once the thread runs
    std::int32_t m_nTimeoutDelay = 120;    // seconds; only read once the thread runs

    // MonotonicMs() at which the listener is watched again; 0: it is.
    std::int64_t m_nListenRestEnd = 0;
    std::uint32_t m_nConnections = 0;  // counts clients served: tells a connection from its number
    CPipeReader m_pipeReader;
    std::size_t m_nRelayed = 0;           // lines queued in this turn
    std::array<LogRecord, 64> m_Batch{};  // records on their way from the circle buffer
    CLock m_LanguageWriters;              // one change of the language at a time, with its copy
    CLock m_Lock;  // the configuration file while the service rewrites it; upload threads only
};

static_assert(std::atomic<std::int32_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

// The one console. Set by main before the first worker starts; null before that.
extern CCommunicatThread* g_pCommunicatThread;
