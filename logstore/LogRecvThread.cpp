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
        if (FD_ISSET(m_nSocket, &setReady) && !ReceiveDatagrams()) {
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

// Takes the datagrams that wait and acts on them, some batches of them: then the pipe has its turn.
// False when the run has to end.
bool CLogRecvThread::ReceiveDatagrams() {
    constexpr int kMostBatches = 4;
    for (int nBatch = 0; nBatch < kMostBatches; ++nBatch) {
        if (!m_Batch.Receive(m_nSocket)) {
            Trace("LogRecvThread recvfrom failed\n", "Run");
            return false;
        }
        HandleBatch();
        if (!m_Batch.IsFull() || m_nQuit != 0) {
            break;
        }
    }
    return true;
}

// Each datagram keeps its place in the order: ordinary records that follow one another are stored
// together, before what comes behind them is looked at.
void CLogRecvThread::HandleBatch() {
    std::size_t nAt = 0;
    while (nAt < m_Batch.Count()) {
        std::size_t nEnd = nAt;
        while (nEnd < m_Batch.Count() && IsOrdinary(nEnd)) {
            ++nEnd;
        }
        if (nEnd > nAt) {
            HandleOrdinary(&m_Batch.At(nAt), nEnd - nAt);
            nAt = nEnd;
        } else {
            HandleOther(nAt++);
        }
    }
}

// A datagram of another length is dropped without a word.
void CLogRecvThread::HandleOther(std::size_t nAt) {
    if (!m_Batch.IsRecord(nAt)) {
        return;
    }
    if (IsValid(m_Batch.At(nAt))) {
        HandleRealTime(m_Batch.At(nAt));
    } else {
        Trace("LogRecvThread recv nvalid log frame\n", "Run");
    }
}

bool CLogRecvThread::IsOrdinary(std::size_t nAt) const {
    return m_Batch.IsRecord(nAt) && IsValid(m_Batch.At(nAt)) &&
           m_Batch.At(nAt).nType != kRealTimeType;
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
    if (!g_CircleBuffer.IsReaderTold()) {
        g_CircleBuffer.SetReaderTold(PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED));
    }
    if (!g_CircleBuffer.IsReaderTold()) {
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

// Nothing is signalled or passed on that is not in the file, or was tried to be put there.
void CLogRecvThread::HandleOrdinary(const LogRecord* pRecords, std::size_t nRecords) {
    {
        const CLockGuard guard(*m_pLogFile);
        // Records that cannot be stored are lost: there is nobody to tell, and the next may fit.
        m_pLogFile->WriteRecords(pRecords, nRecords);
    }
    for (const LogRecord* pRecord = pRecords; pRecord != pRecords + nRecords; ++pRecord) {
        Progress("Not realtimeLog\n");
        if (LightsLed(pRecord->nType)) {
            m_Led.Signal();
        }
        if (pRecord->nType >= 0 && pRecord->nIndex >= 0) {
            PassToUploads(*pRecord);
        }
    }
    TellUploads();
}

int CLogRecvThread::UdpSend(std::uint32_t dwHost, std::uint16_t wPort, const void* pData,
                            std::size_t nLen) {
    return SendDatagram(m_nSocket, dwHost, wPort, pData, nLen);
}
