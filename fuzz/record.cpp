// The intake: datagrams of any length, and messages in its pipe, to CLogRecvThread with the day's
// file and the console's ring below it. What was stored, relayed and answered is compared with a
// few lines that say the same.
//
// Input: flags; the day's counter to begin with (4 bytes); then steps.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "core/CircleBuffer.h"
#include "core/MsgQueue.h"
#include "fuzz/Check.h"
#include "fuzz/FakeSystem.h"
#include "fuzz/InputBytes.h"
#include "fuzz/ServiceState.h"
#include "logstore/LogFile.h"
#include "logstore/LogRecord.h"
#include "logstore/LogRecvThread.h"
#include "support/Socket.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::uint16_t kPort = 5140;
constexpr std::int32_t kClients = 3;  // indexes 0 to 2
constexpr std::uint16_t kControlPort = 6000;
constexpr std::uint32_t kRingBytes = 1000;  // three records, and the fourth wraps
const char* const kDayFile = "/log/20261122.log";

// Flags.
constexpr std::uint8_t kConsoleRelays = 1;
constexpr std::uint8_t kSendingFails = 2;
constexpr std::uint8_t kNoDayFile = 4;     // its header is wrong, so it is not open
constexpr std::uint8_t kNewDayFile = 8;    // else one with the counter of the input
constexpr std::uint8_t kSessionsEnd = 16;  // at once; else none can be started

// A console with nobody or with a client that watches; its thread is over, its state stays.
std::unique_ptr<CCommunicatThread> MakeConsole(bool bRelays) {
    auto pConsole = std::make_unique<CCommunicatThread>();
    pConsole->AddLogClient({0, kControlPort, "netd"});
    int nStep = 0;
    CFakeSystem system([&] {
        const char* const kTyped[] = {"quietharbor\r\n", "set 0 1\r\n"};
        if (!bRelays || nStep > 2) {
            pConsole->Stop();
        } else if (nStep == 0) {
            system.KnockAtListener();
        } else {
            system.Peers().back().Send(kTyped[nStep - 1]);
        }
        ++nStep;
    });
    Check(pConsole->Init(1) == 0, "the console can listen");
    pConsole->ThreadRun();
    Check(pConsole->GetStatus() == (bRelays ? SENDING_REAL_TIME_LOG : WAIT_CONNECT),
          "the console is in the state that is wanted");
    return pConsole;
}

// What the intake has to do with the datagrams that it got.
class CExpected {
public:
    CExpected(std::uint32_t dwCount, bool bRelays) : m_dwCount(dwCount), m_bRelays(bRelays) {}

    void Take(const std::string& strDatagram) {
        LogRecord record;
        if (strDatagram.size() < sizeof(record)) {
            return;
        }
        std::memcpy(&record, strDatagram.data(), sizeof(record));
        if (record.dwMagic != LOG_RECORD_MAGIC || record.nIndex > 99 || record.nType > 4) {
            return;
        }
        if (record.nType == 4) {
            TakeRealTime(record);
        } else {
            m_dwCount += (m_dwCount + 1) % 10239 == 0 ? 2 : 1;
            m_strNewest.assign(strDatagram, 0, sizeof(record));
        }
    }

    std::uint32_t Count() const { return m_dwCount; }
    const std::string& Newest() const { return m_strNewest; }
    std::uint32_t RingUsed() const { return m_nRingUsed; }
    const std::vector<std::int32_t>& Stopped() const { return m_Stopped; }

private:
    void TakeRealTime(const LogRecord& record) {
        if (!m_bRelays) {
            if (record.nIndex >= 0 && record.nIndex < kClients) {
                m_Stopped.push_back(record.nIndex);
            }
        } else if (m_nRingUsed + sizeof(record) < kRingBytes) {
            m_nRingUsed += static_cast<std::uint32_t>(sizeof(record));
        }
    }

    std::uint32_t m_dwCount;
    bool m_bRelays;
    std::string m_strNewest;
    std::uint32_t m_nRingUsed = 0;
    std::vector<std::int32_t> m_Stopped;
};

std::string MakeRecord(CInputBytes& input) {
    LogRecord record{};
    record.dwMagic = LOG_RECORD_MAGIC;
    record.nIndex = input.Signed();
    record.nType = input.Signed();
    const std::string strText = input.Present(input.UpTo(kRecordTextBytes));
    strText.copy(record.szText, kRecordTextBytes);
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

void PutDayFile(std::uint8_t byFlags, std::uint32_t dwCount) {
    const std::string strPath = RootPath(kDayFile);
    unlink(strPath.c_str());
    if ((byFlags & (kNoDayFile | kNewDayFile)) == kNewDayFile) {
        return;
    }
    LogFileHeader header{};
    header.dwMagic = (byFlags & kNoDayFile) != 0 ? 0 : LOG_RECORD_MAGIC;
    header.dwCount = dwCount;
    const CUniqueFd file(open(strPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    Check(write(file.Get(), &header, sizeof(header)) == ssize_t{sizeof(header)},
          "the root takes files");
}

class CIntakeRun {
public:
    explicit CIntakeRun(CInputBytes input)
        : m_Input(input),
          m_byFlags(m_Input.Byte()),
          m_dwBegin(m_Input.Number<std::uint32_t>()),
          m_Expected(Has(kNewDayFile) ? 0 : m_dwBegin, Has(kConsoleRelays)),
          m_System([this] { Step(); }) {
        m_System.PlanSendTo(!Has(kSendingFails));
        m_System.PlanThreads(Has(kSessionsEnd));
        m_System.PlanConnect(EConnect::kRefused);
    }

    void Run() {
        PutDayFile(m_byFlags, m_dwBegin);
        OpenDayFile();
        for (std::int32_t nIndex = 0; nIndex < kClients; ++nIndex) {
            m_Intake.AddLogClient({nIndex, kControlPort + nIndex, "client"});
        }
        m_Intake.SetLogFile(&m_LogFile);
        Check(m_Intake.Init(kPort) == 0, "the port can be bound");
        Check(m_Intake.Run() == 0, "the intake ends as it should");
        CheckFile();
        CheckRing();
        CheckFrames();
    }

private:
    bool Has(std::uint8_t byFlag) const { return (m_byFlags & byFlag) != 0; }

    void OpenDayFile() {
        const CLockGuard guard(m_LogFile);
        Check((m_LogFile.OpenLogFile() == 0) == !Has(kNoDayFile), "a right day's file is opened");
    }

    void Step() {
        if (!m_Input.BeginStep()) {
            m_Intake.Stop();
            return;
        }
        switch (m_Input.Byte() % 5) {
            case 0:
                Send(m_Input.Bytes(m_Input.UpTo(kRecordBytes + 100)));
                break;
            case 1:
                Send(MakeRecord(m_Input));
                break;
            case 2:
                PostQueueMsg();
                break;
            case 3:
                Send(m_Input.Present(m_Input.Byte()));
                break;
            default:
                PostPipeMsg(g_nLogRecvThreadID[1], PickId(), m_Input.Number<std::uint32_t>(),
                            m_Input.Byte());
                break;
        }
    }

    void Send(const std::string& strDatagram) {
        m_System.Peers().front().Send(strDatagram);
        m_Expected.Take(strDatagram);
    }

    void PostQueueMsg() {
        const std::uint8_t byCode = m_Input.Byte();
        const std::string strPayload = m_Input.Bytes(std::size_t{m_Input.Byte()} + 1);
        g_MsgQueue.PostMsg(g_nLogRecvThreadID[1], byCode, strPayload.data(),
                           static_cast<std::int32_t>(strPayload.size()));
    }

    std::int32_t PickId() {
        const std::int32_t kIds[] = {LOG_THREAD_QUIT, LOG_THREAD_DATA_ARRIVED, MSG_QUEUE_ARRIVED,
                                     MSG_TIMER, 0};
        return kIds[m_Input.Byte() % std::size(kIds)];
    }

    void CheckFile() const {
        if (Has(kNoDayFile)) {
            return;
        }
        const CUniqueFd file(open(RootPath(kDayFile).c_str(), O_RDONLY | O_CLOEXEC));
        const off_t nBytes = lseek(file.Get(), 0, SEEK_END);
        Check(nBytes % off_t{kRecordBytes} == 0 && nBytes <= off_t{kLogFileUnits * kRecordBytes},
              "the day's file has whole units and no more than its ring");
        LogFileHeader header;
        Check(pread(file.Get(), &header, sizeof(header), 0) == ssize_t{sizeof(header)},
              "the day's file has a header");
        Check(header.dwMagic == LOG_RECORD_MAGIC && header.dwCount == m_Expected.Count(),
              "the counter counts the valid records");
        CheckNewest(file.Get(), header.dwCount % kLogFileUnits);
    }

    void CheckNewest(int nFile, std::uint32_t nSlot) const {
        if (m_Expected.Newest().empty()) {
            return;
        }
        std::string strSlot(kRecordBytes, '\0');
        const ssize_t nRead = pread(nFile, strSlot.data(), kRecordBytes, off_t{nSlot} * 300);
        Check(nRead == ssize_t{kRecordBytes} && strSlot == m_Expected.Newest(),
              "the newest record is in its slot as it came");
    }

    void CheckRing() const {
        const CLockGuard guard(g_CircleBuffer);
        Check(g_CircleBuffer.GetUsed() == m_Expected.RingUsed(),
              "real-time records that fit are in the ring");
    }

    void CheckFrames() const {
        if (Has(kSendingFails)) {
            return;
        }
        const std::vector<SentDatagram>& sent = m_System.Sent();
        const std::vector<std::int32_t>& wanted = m_Expected.Stopped();
        Check(sent.size() == wanted.size(), "a client that nobody watches is told to stop");
        for (std::size_t i = 0; i < sent.size(); ++i) {
            const LogcCtrlFrame frame = MakeRealTimeFrame(wanted[i], 0);
            Check(sent[i].dwHost == kLoopback && sent[i].wPort == kControlPort + wanted[i] &&
                      sent[i].strBytes.size() == kRealTimeFrameBytes &&
                      std::memcmp(sent[i].strBytes.data(), &frame, kRealTimeFrameBytes) == 0,
                  "the frame goes to the client that sent the record");
        }
    }

    CInputBytes m_Input;
    const std::uint8_t m_byFlags;
    const std::uint32_t m_dwBegin;
    CExpected m_Expected;
    CFakeSystem m_System;
    CLogFile m_LogFile;
    CLogRecvThread m_Intake;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    PutFile("/dev/tarvik/TarvikLed", "");
    ResetService(kRingBytes);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    static const std::unique_ptr<CCommunicatThread> consoles[] = {MakeConsole(false),
                                                                  MakeConsole(true)};
    g_pCommunicatThread = consoles[CInputBytes(pData, nLen).Byte() & kConsoleRelays].get();
    CIntakeRun(CInputBytes(pData, nLen)).Run();
    ResetService(kRingBytes);
    return 0;
}
