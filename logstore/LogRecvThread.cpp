#include "logstore/LogRecvThread.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "core/CircleBuffer.h"
#include "core/MsgQueue.h"
#include "core/Process.h"
#include "core/Progress.h"
#include "core/Trace.h"
#include "logstore/LogFile.h"
#include "support/Socket.h"

CLogRecvThread::~CLogRecvThread() {
    if (m_nSocket != -1) {
        close(m_nSocket);
    }
}

int CLogRecvThread::Init(std::uint16_t wPort) {
    if (m_nSocket != -1) {
        close(m_nSocket);
    }
    m_nSocket = MakeSocket(SOCK_DGRAM);
    if (m_nSocket < 0) {
        return 5;
    }
    return BindToPort(m_nSocket, wPort) ? 0 : 10;
}

int CLogRecvThread::Run() {
    if (!m_Led.Open()) {
        Trace("failed open device!\n");
    }
    const CUniqueFd pipeBehindSocket = MovePipeBehindSocket();
    while (m_nQuit == 0) {
        fd_set setReady;
        if (WaitForInput(setReady) == 0) {
            continue;
        }
        if (FD_ISSET(m_nPipe, &setReady) && !DrainPipe()) {
            break;
        }
        if (FD_ISSET(m_nSocket, &setReady) && !ReceiveDatagram()) {
            break;
        }
    }
    m_Led.Close();
    StopAllUploadThreads();
    Trace("recv thread exit!\n");
    return 0;
}

void CLogRecvThread::Stop() {
    m_nQuit = 1;  // first: a pipe too full for the message wakes the thread as well
    PostPipeMsg(g_nLogRecvThreadID[1], LOG_THREAD_QUIT);
}

// select asks the descriptors in the order of their numbers, and gets ready to sleep on each until
// one has something. With the socket asked first it does not for a record that waits already, which
// is 3 % of what a record costs. Returns the pipe's other descriptor; none when there can be none.
CUniqueFd CLogRecvThread::MovePipeBehindSocket() {
    CUniqueFd pipe(fcntl(g_nLogRecvThreadID[0], F_DUPFD_CLOEXEC, m_nSocket + 1));
    m_nPipe = pipe.IsOpen() && FitsSelect(pipe.Get()) ? pipe.Get() : g_nLogRecvThreadID[0];
    return pipe;
}

// Waits for the pipe or the socket. Above 0: setReady says which; 0: nothing came.
int CLogRecvThread::WaitForInput(fd_set& setReady) {
    FD_ZERO(&setReady);
    FD_SET(m_nSocket, &setReady);
    FD_SET(m_nPipe, &setReady);
    const int nReady = WaitForEvents(std::max(m_nSocket, m_nPipe), &setReady, nullptr);
    if (nReady == -1) {
        Trace("CLogRecvThread::Run:select failed\n", "Run");
        EndProcess(1);
    }
    return nReady;
}

// Handles the messages in the pipe. False when the run has to end.
bool CLogRecvThread::DrainPipe() {
    constexpr int kMaxMsgsPerRecord = 8;  // an agent that floods the service costs no records
    const auto OnPipeMsg = [this](const PipeMsg& msg) {
        if (msg.id == MSG_QUEUE_ARRIVED) {
            OnMsg(msg.wParam, msg.lParam);
        }
    };
    return m_PipeReader.Dispatch(m_nPipe, OnPipeMsg, kMaxMsgsPerRecord);
}

// Takes one datagram and acts on it. False when the run has to end.
bool CLogRecvThread::ReceiveDatagram() {
    LogRecord record;
    sockaddr_in sender;  // asked for, as the wire's description has it, and not used
    socklen_t nSenderLen = sizeof(sender);
    const ssize_t nBytes = recvfrom(m_nSocket, &record, sizeof(record), MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&sender), &nSenderLen);
    if (nBytes < 0) {
        // A datagram with a wrong checksum wakes select and is gone when it is asked for.
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            return true;
        }
        Trace("LogRecvThread recvfrom failed\n", "Run");
        return false;
    }
    if (nBytes != static_cast<ssize_t>(sizeof(record))) {
        return true;
    }
    if (!IsValid(record)) {
        Trace("LogRecvThread recv nvalid log frame\n", "Run");
        return true;
    }
    if (record.nType == kRealTimeType) {
        HandleRealTime(record);
    } else {
        HandleOrdinary(record);
    }
    return true;
}

// There is no lower bound: a record with a negative index or type is stored.
bool CLogRecvThread::IsValid(const LogRecord& record) {
    return record.dwMagic == LOG_RECORD_MAGIC && record.nIndex <= kMaxClientIndex &&
           record.nType <= kRealTimeType;
}

void CLogRecvThread::HandleRealTime(const LogRecord& record) {
    Progress("RealTimeLog-->-->-->-->n");
    if (g_pCommunicatThread->GetStatus() == SENDING_REAL_TIME_LOG) {
        PassToConsole(record);
    } else {
        TellClientToStop(record.nIndex);
    }
}

void CLogRecvThread::PassToConsole(const LogRecord& record) {
    // Locked until the console is told, so that it never finds a record half written.
    const CLockGuard guard(g_CircleBuffer);
    if (g_CircleBuffer.GetFree() < kRecordBytes) {
        Trace("LogRecvThread recv realtime log.circle_buffer full!", "Run");
        return;
    }
    g_CircleBuffer.Write(&record, kRecordBytes);
    if (!PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED)) {
        Trace("LogRecvThread failed send data arrived pipe msg to CommunicatThread!!\n", "Run");
    }
    Progress("RealTimeLog-->-->-->-->PipeMsg to CommunicatThread.\n");
}

void CLogRecvThread::TellClientToStop(std::int32_t nIndex) {
    const auto entry =
        std::find_if(m_listLogClient.begin(), m_listLogClient.end(),
                     [nIndex](const LogClientEntry& e) { return e.nIndex == nIndex; });
    if (entry == m_listLogClient.end()) {
        return;
    }
    const LogcCtrlFrame frame = MakeRealTimeFrame(entry->nIndex, 0);
    if (UdpSend(kLoopback, static_cast<std::uint16_t>(entry->nPort), &frame, kRealTimeFrameBytes) !=
        0) {
        Trace("LogRecvThread Send real time log flag to log client failed!\n", "Run");
    }
    Progress("RealTimeLog-->-->-->-->Send to Logc to Stop send.\n");
}

void CLogRecvThread::HandleOrdinary(const LogRecord& record) {
    Progress("Not realtimeLog\n");
    {
        const CLockGuard guard(*m_pLogFile);
        // A record that cannot be stored is lost: there is nobody to tell, and the next one may
        // fit.
        m_pLogFile->WriteRecord(record);
    }
    if (LightsLed(record.nType)) {
        m_Led.Signal();
    }
    if (record.nType >= 0 && record.nIndex >= 0) {
        PassToUploads(record);
    }
}

int CLogRecvThread::UdpSend(std::uint32_t dwHost, std::uint16_t wPort, const void* pData,
                            std::size_t nLen) {
    return SendDatagram(m_nSocket, dwHost, wPort, pData, nLen);
}
