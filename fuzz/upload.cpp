// An upload session: what a receiver sends, cut anywhere, to CUploadThread in all its states, with
// files to send, records to forward and timers in between. No byte may leave that is in none of the
// two directories, and no command may start but those for the two messages that have one.
//
// Input: flags; then steps.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "console/CommunicatThread.h"
#include "core/MsgQueue.h"
#include "core/ServiceSettings.h"
#include "core/TimerService.h"
#include "fuzz/Check.h"
#include "fuzz/ServiceState.h"
#include "fuzz/SteppedPeer.h"
#include "link/CmdThread.h"
#include "link/UploadFrame.h"
#include "link/UploadThread.h"
#include "logstore/LogRecord.h"
#include "logstore/LogRecvThread.h"

namespace {

constexpr std::int32_t kSlot = 2;
constexpr std::size_t kLongFileBytes = 250000;  // more than a session queues

// Flags. The lower values are those of EConnect.
constexpr std::uint8_t kHandshake = 0x80;    // the receiver begins with a good one
constexpr std::uint8_t kFromAddress = 0x40;  // the agent named a local address
constexpr std::uint8_t kBindFails = 0x20;
constexpr std::uint8_t kShellFails = 0x10;
constexpr std::uint8_t kSendingFails = 0x08;  // of frames to log clients

const char* const kConfig = "/etc/tarvik/log/log.conf";
const std::string kConfigText = "[local]\nLANGUAGE = English\n\n[0]\nAPP = netd\n";
const std::string kSecret = "what no receiver may see";

struct Message {
    std::uint16_t wCode;
    std::size_t nBytes;  // of the payload
};
constexpr Message kMessages[] = {
    {UM_HELLO_ACK, kHelloAckBytes},  {UM_INFO_ACK, kInfoAckBytes},
    {UM_GET_HLOG, kGetHlogBytes},    {UM_CANCEL, kCancelBytes},
    {UM_SUBSCRIBE, kSubscribeBytes}, {UM_SET_LANGUAGE, kSetLanguageBytes},
    {UM_REBOOT, kRebootBytes},       {UM_HELLO, kHelloBytes}};

const char* const kNames[] = {"20261121.log", "20261122.log", "long",   "empty",     "folder",
                              "link",         "fifo",         "secret", "../secret", "."};

std::string Frame(std::uint16_t wCode, const std::string& strBody) {
    const std::vector<std::uint8_t> frame = MakeUploadFrame(wCode, strBody.data(), strBody.size());
    return {frame.begin(), frame.end()};
}

std::string GetHLog(const std::string& strName, std::uint32_t dwStart) {
    std::string strBody = '\0' + strName;
    strBody.resize(1 + kGetHlogNameBytes);
    for (int nShift = 0; nShift < 32; nShift += 8) {
        strBody += static_cast<char>(dwStart >> nShift);
    }
    return Frame(UM_GET_HLOG, strBody);
}

RequestBlock TakeRequest(CInputBytes& input) {
    RequestBlock byRequest;
    input.Bytes(byRequest.size()).copy(reinterpret_cast<char*>(byRequest.data()), byRequest.size());
    return byRequest;
}

class CSessionRun : private CSteppedPeer {
public:
    explicit CSessionRun(CInputBytes input)
        : CSteppedPeer(input), m_Session(kSlot, 7, TakeRequest(m_Input)) {
        PlanConnect(m_byFlags & 0x07);
        m_System.PlanSendTo(!Has(kSendingFails));
        m_System.PlanBind(!Has(kBindFails));
        m_System.PlanShell(!Has(kShellFails), "");
        g_nUploadSrcIP = Has(kFromAddress) ? 0x0A000001 : 0;
    }

    void Run() {
        if (Has(kHandshake)) {
            Keep(Frame(UM_HELLO_ACK, std::string("\1\0\0\0\x1F", 5)) +
                 Frame(UM_INFO_ACK, std::string(1, '\0')));
        }
        Check(m_Session.Run() == 0, "the session ends as it should");
        Read();
        for (const CPeerEnd& peer : m_System.Peers()) {
            CheckPeer(peer);
        }
        CheckCommands();
        if (m_bShortened) {
            PutFile("/log/long", std::string(kLongFileBytes, 'l'));
        }
    }

private:
    void StopThread() override { m_Session.Stop(); }

    void SendSomething(std::uint8_t byKind) override {
        SendInParts(Bytes(byKind % 64), byKind >= 64);
    }

    std::string Bytes(std::uint8_t byKind) {
        switch (byKind % 5) {
            case 0:
                return m_Input.Present(std::size_t{m_Input.Byte()} + 1);
            case 1: {
                const Message& message = kMessages[m_Input.Byte() % std::size(kMessages)];
                return Frame(message.wCode, m_Input.Bytes(message.nBytes - kUmBodyOffset));
            }
            case 2: {
                const auto wCode = m_Input.Number<std::uint16_t>();
                return Frame(wCode, m_Input.Bytes(m_Input.UpTo(kUmMaxFrameBytes)));
            }
            case 3: {
                const char* const szName = kNames[m_Input.Byte() % std::size(kNames)];
                return GetHLog(szName, m_Input.Number<std::uint32_t>());
            }
            default: {
                std::string strName = m_Input.Present(m_Input.Byte() % 128);
                return GetHLog(strName, m_Input.Byte());
            }
        }
    }

    void LetSomethingHappen(std::uint8_t byKind) override {
        switch (byKind % 8) {
            case 0:
                g_TimerService.Tick(std::int64_t{100} * m_Input.Byte());
                break;
            case 1:
            case 2:
                PassRecord();
                break;
            case 3:
                PostQueueMsg(g_nUploadThreadID[kSlot][1]);
                break;
            case 4:
                Read((std::size_t{m_Input.Byte()} + 1) * 1024);
                break;
            case 5:
                Read();
                Hangup();
                break;
            case 6:
                m_bShortened = truncate(RootPath("/log/long").c_str(), m_Input.Byte()) == 0;
                break;
            default:
                PostTimerMsg(g_nUploadThreadID[kSlot][1]);
                break;
        }
    }

    // As the intake passes one on.
    void PassRecord() {
        LogRecord record{};
        record.nIndex = m_Input.Byte() % (kMaxClientIndex + 1);
        record.nType = m_Input.Byte() % (kMaxOrdinaryType + 1);
        m_Input.Present(m_Input.UpTo(kRecordTextBytes)).copy(record.szText, kRecordTextBytes);
        std::uint8_t byCopy[kRecordBytes];
        const auto nBytes = static_cast<std::int32_t>(MakeUploadCopy(record, byCopy));
        const MsgPayload copy = CMsgQueue::MakePayload(byCopy, nBytes);
        for (int nTimes = m_Input.Byte() % 8; nTimes >= 0; --nTimes) {
            if (m_Session.WantsRecord(record.nIndex, record.nType, nBytes)) {
                m_Session.PassRecord(copy);
                m_Session.TellRecords();
            }
        }
    }

    void CheckPeer(const CPeerEnd& peer) const override {
        const std::string& strBytes = peer.Received();
        const std::string strHello = Frame(UM_HELLO, std::string("\x11\x01\x06\x20", 4));
        Check(strBytes.empty() || strBytes.starts_with(strHello), "a session says hello first");
        Check(strBytes.find(kSecret) == std::string::npos,
              "a receiver gets files of the two directories only");
    }

    void CheckCommands() const {
        const std::string strCopy = "cp " + RootPath(kConfig) + " " +
                                    RootPath(std::string("/config") + kConfig) + " ; sync";
        for (const std::string& strCommand : m_System.Commands()) {
            Check(strCommand == "reboot >/dev/null" || strCommand == strCopy,
                  "a session starts its two commands only");
        }
        if (!m_System.Commands().empty()) {
            PutFile(kConfig, kConfigText);
        }
    }

    bool m_bShortened = false;
    CUploadThread m_Session;
};

void MakeFiles() {
    PutFile(kConfig, kConfigText);
    PutFile("/secret", kSecret);
    PutFile("/hislog/20261121.log", std::string(600, 'h'));
    PutFile("/log/20261121.log", kSecret);  // the one in the history hides it
    PutFile("/log/20261122.log", std::string(300, 't'));
    PutFile("/log/long", std::string(kLongFileBytes, 'l'));
    PutFile("/log/empty", "");
    std::filesystem::create_directories(RootPath("/hislog/folder"));
    for (const char* szName : {"/hislog/link", "/log/fifo"}) {
        unlink(RootPath(szName).c_str());  // of a process that had the root before
    }
    std::filesystem::create_symlink(RootPath("/secret"), RootPath("/hislog/link"));
    Check(mkfifo(RootPath("/log/fifo").c_str(), 0600) == 0, "there are named pipes");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    constexpr std::int32_t kIntervals[] = {20000, 10000, 10000};
    std::copy(std::begin(kIntervals), std::end(kIntervals), g_nUploadTimerInterval);
    MakeFiles();
    g_byNodeCode = 7;
    g_pCommunicatThread = new CCommunicatThread;
    g_pCommunicatThread->AddLogClient({0, 6000, "netd"});
    const CFakeSystem system([] {});
    Check(g_pCommunicatThread->Init(1) == 0, "the console can listen");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    if (std::search(pData, pData + nLen, kSecret.begin(), kSecret.end()) != pData + nLen) {
        return 0;  // who knows it can have it sent, as the text of a record
    }
    CSessionRun(CInputBytes(pData, nLen)).Run();
    ResetService();
    return 0;
}
