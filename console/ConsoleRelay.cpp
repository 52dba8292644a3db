// What flows while a log client is watched: real-time records to the telnet client, control frames
// to the log clients.
#include <algorithm>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "console/RelayLine.h"
#include "core/CircleBuffer.h"
#include "core/Progress.h"
#include "core/Trace.h"
#include "support/Socket.h"

int CCommunicatThread::DoPipeMsgDataArrive() {
    {
        const CLockGuard guard(g_CircleBuffer);
        g_CircleBuffer.SetReaderTold(false);
    }
    while (RelayBatch()) {
    }
    return DrainOneByOne();
}

// Takes out as many records as certainly find room in the send ring, and queues their lines while
// the intake goes on putting records in. False when no more can be done in this way.
bool CCommunicatThread::RelayBatch() {
    if (m_nConnSocket < 1 || m_nStatus != SENDING_REAL_TIME_LOG) {
        return false;
    }
    const auto nRoom = static_cast<std::size_t>(m_pSendBuff->GetFree()) / kRelayLineBytes;
    const std::size_t nMost = std::min(nRoom, m_Batch.size());
    std::size_t nRecords = 0;
    {
        const CLockGuard guard(g_CircleBuffer);
        const std::uint32_t nBytes =
            g_CircleBuffer.Peek(m_Batch.data(), static_cast<std::uint32_t>(nMost * kRecordBytes));
        while (nRecords < nBytes / kRecordBytes && m_Batch[nRecords].nType == kRealTimeType) {
            ++nRecords;
        }
        g_CircleBuffer.Skip(static_cast<std::uint32_t>(nRecords * kRecordBytes));
    }
    m_nRelayed += nRecords;
    for (std::size_t i = 0; i < nRecords; ++i) {
        static_cast<void>(RelayRecord(m_Batch[i]));  // there is room
    }
    return nRecords > 0;
}

int CCommunicatThread::DrainOneByOne() {
    // Held for the whole drain. What is called meanwhile takes no lock that the intake could hold
    // while it waits for this one.
    const CLockGuard guard(g_CircleBuffer);
    while (g_CircleBuffer.GetUsed() > 0) {
        LogRecord record;
        const std::uint32_t nCame = g_CircleBuffer.Peek(&record, kRecordBytes);
        if (nCame < kRecordBytes) {
            Trace("CCommunicatThread DoPipeMsgDataArrive() failed get circle buffer!");
            g_CircleBuffer.Skip(nCame);
            return -1;
        }
        const RecordFate eFate = HandleRecord(record);
        if (eFate != RecordFate::kDone) {
            return eFate == RecordFate::kKept ? 0 : -1;
        }
        g_CircleBuffer.Skip(kRecordBytes);
    }
    return 0;
}

// kDone: the record has been dealt with. kKept: it waits for room in the send ring. kFailed: it is
// tried again at the next drain.
CCommunicatThread::RecordFate CCommunicatThread::HandleRecord(const LogRecord& record) {
    if (record.nType != kRealTimeType) {
        Trace("CCommunicatThread DoPipeMsgDataArrive recv unRealtimeLog ...\n",
              "DoPipeMsgDataArrive");
        return RecordFate::kDone;
    }
    if (m_nConnSocket < 1 || m_nStatus != SENDING_REAL_TIME_LOG) {
        return StopSender(record);
    }
    return RelayRecord(record);
}

// Nobody watches: tells the log client that the record came from, when it is a configured one.
CCommunicatThread::RecordFate CCommunicatThread::StopSender(const LogRecord& record) {
    Progress("CommunicatThread...Will send cmd frame to logc to stop send log...\n");
    const LogClientEntry* pEntry = FindLogc(record.nIndex);
    if (pEntry == nullptr) {
        return RecordFate::kDone;
    }
    if (SendRealTimeFrame(pEntry->nIndex, pEntry->nPort, 0) != 0) {
        Trace(
            "CCommunicatThread DoPipeMsgDataArrive Send real time log flag to log client failed!\n",
            "DoPipeMsgDataArrive");
        return RecordFate::kFailed;
    }
    Progress("send cmd frame to logc to stop send log success...\n");
    return RecordFate::kDone;
}

CCommunicatThread::RecordFate CCommunicatThread::RelayRecord(const LogRecord& record) {
    char szLine[kRelayLineBytes];
    const std::size_t nLen = FormatRelayLine(szLine, m_szLogcName, record);
    if (TcpSend(szLine, static_cast<int>(nLen)) != 0) {
        Trace("Send buffer full .This time cannot to send log.\n", "DoPipeMsgDataArrive");
        return RecordFate::kKept;
    }
    Progress("DoPipeMsgDataArrive TcpSend...Send log to telnet ....\n");
    return RecordFate::kDone;
}

int CCommunicatThread::DoExitSendRealTimeLog() {
    if (m_nConnSocket < 0 || m_nStatus != SENDING_REAL_TIME_LOG) {
        Trace("CCommunicatThread DoExitSendRealTimeLog no  socket or state error. \n");
        return -1;
    }
    if (m_nLogcIndex < 0 || m_nLogcPort < 0) {
        Trace("CCommunicatThread DoExitSendRealTimeLog no logc imformation. \n");
        return -1;
    }
    Progress("DoExitSendRealTimeLog .... prepar to udp send .\n");
    if (SendRealTimeFrame(m_nLogcIndex, m_nLogcPort, 0) != 0) {
        Trace(
            "CCommunicatThread DoExitSendRealTimeLog Send real time log flag to log client "
            "failed!\n");
        return -1;
    }
    Progress("DoExitSendRealTimeLog .... udp send success will tcp send..\n");
    if (TcpSend(BuildHelpText()) != 0) {
        Trace("CCommunicatThread DoExitSendRealTimeLog  TcpSend 0 failed.\n");
        return -1;
    }
    m_nStatus = WAIT_SEND_COMMAND;
    Progress("DoExitSendRealTimeLog ....  tcp send success..\n");
    return 0;
}

int CCommunicatThread::SendRealTimeFrame(std::int32_t nIndex, std::int32_t nPort,
                                         std::uint32_t dwValue) {
    const LogcCtrlFrame frame = MakeRealTimeFrame(nIndex, dwValue);
    return UdpSend(kLoopback, static_cast<std::uint16_t>(nPort), &frame, kRealTimeFrameBytes);
}

int CCommunicatThread::UdpSend(std::uint32_t dwHost, std::uint16_t wPort, const void* pBuf,
                               int nLen) {
    if (m_nUdpSocket < 0) {
        Trace("CCommunicatThread UdpSend  no socket.\n");
        return -1;
    }
    if (pBuf == nullptr) {
        Trace("CCommunicatThread UdpSend no data.\n");
        return -1;
    }
    const int nResult =
        SendDatagram(m_nUdpSocket, dwHost, wPort, pBuf, static_cast<std::size_t>(nLen));
    if (nResult != 0) {
        Trace("CCommunicatThread UdpSend cannot sendto complete.\n");
    }
    return nResult;
}
