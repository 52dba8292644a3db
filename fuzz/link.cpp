// The command link: what the agent sends, cut anywhere, to CCmdThread in all its states, with
// timers and answers to send in between. What the service sends has to be whole frames of its own.
//
// Input: flags; then steps.
#include <string>
#include <vector>

#include "core/MsgQueue.h"
#include "core/ServiceSettings.h"
#include "core/TimerService.h"
#include "fuzz/Check.h"
#include "fuzz/ServiceState.h"
#include "fuzz/SteppedPeer.h"
#include "link/CmdFrame.h"
#include "link/CmdThread.h"
#include "link/LinkMsg.h"

namespace {

// Flags. The lower values say how connecting ends.
constexpr std::uint8_t kRegisters = 0x80;  // the first connection registers at once

std::string AsText(const std::vector<std::uint8_t>& bytes) {
    return {bytes.begin(), bytes.end()};
}

std::string Frame(std::uint8_t byCommand, const std::string& strPayload) {
    return AsText(MakeCmdFrame(byCommand, strPayload.data(), strPayload.size()));
}

std::string RegisterAck(const std::string& strRest) {
    std::string strPayload = std::string("\x11\0\0\0", 4) + strRest;
    strPayload.resize(kRegisterAckBytes);
    return Frame(CMD_REGISTER_ACK, strPayload);
}

// A request with a block of that length, whose bytes come from the input.
std::string HlogRequest(CInputBytes& input, std::size_t nBlock) {
    std::string strPayload = input.Bytes(4) + std::string(21, '\0');
    for (int nByte = 0; nByte < 4; ++nByte) {
        strPayload += static_cast<char>(nByte == 0 ? nBlock : 0);
    }
    return Frame(CMD_HLOG_REQUEST, strPayload + input.Bytes(nBlock));
}

// What the service may send; a connection that ends may cut the last frame.
void CheckFrames(const std::string& strBytes) {
    std::size_t nBegin = 0;
    while (strBytes.size() - nBegin >= kCmdHeadBytes) {
        const auto* pFrame = reinterpret_cast<const std::uint8_t*>(strBytes.data()) + nBegin;
        const std::uint32_t nPayload = LoadLe32(pFrame + kCmdLengthOffset);
        const std::uint8_t byCommand = pFrame[kCmdCommandOffset];
        Check(pFrame[0] == CMD_LEAD_BYTE, "every frame has its lead byte");
        Check((byCommand == CMD_REGISTER && nPayload == sizeof(kRegisterValue) && nBegin == 0) ||
                  (byCommand == CMD_KEEP_ALIVE && nPayload == 0) || byCommand == CMD_ANSWER,
              "the service sends its own commands, and registers first");
        nBegin += kCmdHeadBytes + nPayload;
        if (nBegin > strBytes.size()) {
            return;
        }
    }
}

class CLinkRun : private CSteppedPeer {
public:
    explicit CLinkRun(CInputBytes input) : CSteppedPeer(input) { PlanConnect(m_byFlags & 0x7F); }

    void Run() {
        if (Has(kRegisters)) {
            Keep(RegisterAck(""));
        }
        Check(m_Link.Run() == 0, "the link ends as it should");
        Read();
        for (const CPeerEnd& peer : m_System.Peers()) {
            CheckPeer(peer);
        }
    }

private:
    void StopThread() override { m_Link.Stop(); }
    void CheckPeer(const CPeerEnd& peer) const override { CheckFrames(peer.Received()); }

    void SendSomething(std::uint8_t byKind) override {
        SendInParts(Bytes(byKind % 64), byKind >= 64);
    }

    std::string Bytes(std::uint8_t byKind) {
        switch (byKind % 6) {
            case 0:
                return m_Input.Present(std::size_t{m_Input.Byte()} + 1);
            case 1: {
                const std::uint8_t byCommand = m_Input.Byte();
                return Frame(byCommand, m_Input.Bytes(m_Input.Byte()));
            }
            case 2:
                return RegisterAck(m_Input.Present(kRegisterAckBytes - 4));
            case 3:
                return Frame(CMD_PARAMETERS, m_Input.Bytes(kParametersBytes));
            case 4:
                return HlogRequest(m_Input, kRequestBlockBytes);
            default:
                return HlogRequest(m_Input, m_Input.Byte());
        }
    }

    void LetSomethingHappen(std::uint8_t byKind) override {
        switch (byKind % 8) {
            case 0:
                g_TimerService.Tick(std::int64_t{100} * m_Input.Byte());
                break;
            case 1:
                PostAnswer();
                break;
            case 2:
                PostQueueMsg(g_nCmdThreadID[1]);
                break;
            case 3:
                Hangup();
                break;
            case 4:
                PlanConnect(m_Input.Byte());
                break;
            case 5:
                Read();
                break;
            case 6:
                PostTimerMsg(g_nCmdThreadID[1]);
                break;
            default:
                TakeRequest();
                break;
        }
    }

    // As the intake answers a request.
    void PostAnswer() {
        RequestBlock byRequest;
        m_Input.Bytes(byRequest.size())
            .copy(reinterpret_cast<char*>(byRequest.data()), byRequest.size());
        const auto answer = MakeUploadAnswer(m_Input.Byte(), byRequest, m_Input.Byte());
        g_MsgQueue.PostMsg(g_nCmdThreadID[1], MSG_MT_CT_SEND, answer.data(),
                           static_cast<std::int32_t>(answer.size()));
    }

    // What the intake gets of a request is a whole message.
    void TakeRequest() {
        PipeMsg msg{};
        MsgPayload payload;
        if (!m_ReaderOfIntake.Next(g_nLogRecvThreadID[0], msg)) {
            return;
        }
        Check(msg.id == MSG_QUEUE_ARRIVED && msg.lParam == MSG_CT_MT_HLOG &&
                  g_MsgQueue.TakeMsg(static_cast<std::int32_t>(msg.wParam), payload) == 1,
              "the intake gets requests");
        Check(payload.size() >= kHlogMsgBlockOffset &&
                  LoadLe32(&payload[kHlogMsgLengthOffset]) ==
                      payload.size() - kHlogMsgPayloadOffset &&
                  LoadLe32(&payload[kHlogMsgBlockLengthOffset]) ==
                      payload.size() - kHlogMsgBlockOffset,
              "a request tells its own lengths");
    }

    CPipeReader m_ReaderOfIntake;
    CCmdThread m_Link;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    g_nSTPort = 9000;
    constexpr std::int32_t kIntervals[] = {3000, 3000, 5000, 5000};
    std::copy(std::begin(kIntervals), std::end(kIntervals), g_nCmdTimerInterval);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    CLinkRun(CInputBytes(pData, nLen)).Run();
    ResetService();
    return 0;
}
