// The debug console: what clients type before and after the login, cut anywhere, to
// CCommunicatThread in all its states, with records to relay and seconds that pass in between.
//
// Input: flags; then steps.
#include <cstring>
#include <string>
#include <vector>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "core/CircleBuffer.h"
#include "fuzz/Check.h"
#include "fuzz/ServiceState.h"
#include "fuzz/SteppedPeer.h"
#include "logstore/LogRecord.h"
#include "support/Socket.h"

namespace {

constexpr std::int32_t kClients = 5;
constexpr std::uint16_t kControlPort = 6000;
constexpr std::uint32_t kRingBytes = 2000;
constexpr int kMostClients = 5;

// Flags.
constexpr std::uint8_t kClientIsThere = 1;
constexpr std::uint8_t kLogsIn = 2;
constexpr std::uint8_t kWatches = 4;
constexpr std::uint8_t kSendingFails = 8;
constexpr std::uint8_t kShellFails = 16;
constexpr std::uint8_t kNoWebPort = 32;
constexpr std::uint8_t kShortLimit = 64;  // of idle seconds

const char* const kLines[] = {"quietharbor\r\n", "?\r\n",           "\r\n",        "q\r\n",
                              "set 0 1\r\n",     "set 4 65535\r\n", "set 9 5\r\n", "x\r\n"};

class CConsoleRun : private CSteppedPeer {
public:
    explicit CConsoleRun(CInputBytes input) : CSteppedPeer(input) {
        m_System.PlanSendTo(!Has(kSendingFails));
        m_System.PlanShell(!Has(kShellFails), Has(kNoWebPort) ? "" : "8080\n");
    }

    void Run() {
        for (std::int32_t nIndex = 0; nIndex < kClients; ++nIndex) {
            m_Console.AddLogClient({nIndex, kControlPort + nIndex, "client"});
        }
        m_Console.SetTimeoutDelay(Has(kShortLimit) ? 1 : -1);
        Check(m_Console.Init(1) == 0, "the console can listen");
        Check(m_Console.ThreadRun() == 0, "the console ends as it should");
        CheckFrames();
    }

private:
    void StopThread() override { m_Console.Stop(); }

    bool StepAside() override {
        RemoveEnded();
        if (m_nPrepared == 3) {
            return false;
        }
        Prepare(m_nPrepared++);
        return true;
    }

    // What is done before the first step of the input.
    void Prepare(int nStep) {
        const char* const kTyped[] = {"", "quietharbor\r\n", "set 0 1\r\n"};
        const std::uint8_t kWanted[] = {kClientIsThere, kClientIsThere | kLogsIn,
                                        kClientIsThere | kLogsIn | kWatches};
        if ((m_byFlags & kWanted[nStep]) != kWanted[nStep]) {
            return;
        }
        if (nStep == 0) {
            m_System.KnockAtListener();
        } else {
            Send(kTyped[nStep]);
        }
    }

    void SendSomething(std::uint8_t byKind) override {
        if (byKind % 2 == 0) {
            Send(m_Input.Present(std::size_t{m_Input.Byte()} + 1));
        } else {
            Send(kLines[byKind / 2 % std::size(kLines)]);
        }
    }

    void LetSomethingHappen(std::uint8_t byKind) override {
        switch (byKind % 8) {
            case 0:
                if (m_nClients++ < kMostClients) {
                    m_System.KnockAtListener();
                }
                break;
            case 1:
            case 2:
                PassRecord();
                break;
            case 3:
                m_System.PassSeconds(m_Input.Signed());
                break;
            case 4:
                PostPipeMsg(g_nMsgPipe[1], PickId(), m_Input.Byte(), m_Input.Byte());
                break;
            case 5:
                Hangup();
                break;
            case 6:
                m_System.PlanSendTo(m_Input.Byte() % 2 == 0);
                break;
            default:
                Read(std::size_t{m_Input.Byte()} * 256);
                break;
        }
    }

    // As the intake does, but of any length and content.
    void PassRecord() {
        LogRecord record{};
        record.nIndex = m_Input.Signed();
        record.nType = m_Input.Byte() % 8 == 7 ? 0 : kRealTimeType;
        std::memset(record.szText, m_Input.Byte(), sizeof(record.szText));
        const std::string strRest = m_Input.Present(m_Input.UpTo(kRecordBytes - 12));
        std::memcpy(&record.wYear, strRest.data(), strRest.size());
        const std::uint32_t nLen = m_Input.Byte() == 1 ? m_Input.Byte() : kRecordBytes;
        {
            const CLockGuard guard(g_CircleBuffer);
            if (g_CircleBuffer.GetFree() < nLen) {
                return;
            }
            g_CircleBuffer.Write(&record, nLen);
        }
        PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED);
    }

    std::int32_t PickId() {
        const std::int32_t kIds[] = {LOG_THREAD_QUIT, LOG_THREAD_DATA_ARRIVED, MSG_TIMER, 0};
        return kIds[m_Input.Byte() % std::size(kIds)];
    }

    // Only one client is served; of the others each gets its four bytes and the end.
    void RemoveEnded() {
        std::deque<CPeerEnd>& peers = m_System.Peers();
        while (peers.size() > 1) {
            peers.back().Read();
            if (peers.back().Received() == "you.") {
                Check(peers.back().IsAtEnd(), "a refused client is disconnected");
                peers.pop_back();
            } else {
                peers.front().Read();
                Check(peers.front().IsAtEnd(), "one client is served at a time");
                peers.pop_front();
            }
        }
    }

    void CheckFrames() const {
        for (const SentDatagram& sent : m_System.Sent()) {
            LogcCtrlFrame frame{};
            Check(sent.strBytes.size() == kRealTimeFrameBytes, "a frame has its length");
            std::memcpy(&frame, sent.strBytes.data(), sizeof(frame));
            Check(frame.dwMagic == LOGC_CTRL_MAGIC && frame.dwLength == kRealTimeFrameBytes &&
                      frame.dwCommand == LOGC_CMD_REALTIME && frame.dwIndex == frame.dwParam1 &&
                      frame.dwIndex < kClients && frame.dwParam2 <= 65535 &&
                      sent.dwHost == kLoopback && sent.wPort == kControlPort + frame.dwIndex,
                  "a frame goes to the configured client that it names");
        }
    }

    int m_nPrepared = 0;
    int m_nClients = 0;  // that came with steps of the input
    CCommunicatThread m_Console;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    PutFile("/app/appversion", "Main 1.2\n" + std::string(80, 'v') + "\nlast");
    ResetService(kRingBytes);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    CConsoleRun(CInputBytes(pData, nLen)).Run();
    ResetService(kRingBytes);
    return 0;
}
