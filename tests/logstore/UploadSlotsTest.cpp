// A session whose end notice is lost does not keep its slot, and the agent hears of its end.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "core/MsgQueue.h"
#include "core/Progress.h"
#include "link/LinkMsg.h"
#include "logstore/LogFile.h"
#include "logstore/LogRecvThread.h"
#include "peers/Agent.h"
#include "peers/LogClient.h"
#include "peers/PeerSocket.h"
#include "peers/PrivateRoot.h"
#include "peers/Service.h"
#include "reading/IntakeCounters.h"
#include "support/MonoClock.h"

namespace {

class UploadSlots : public PrivateRoot {
protected:
    void SetUp() override {
        PrivateRoot::SetUp();
        ASSERT_TRUE(CreateMsgqueue());
        SilenceProgress();
        m_intake.SetLogFile(&m_logFile);
        ASSERT_EQ(m_intake.Init(m_wPort), 0);
        m_thread = std::thread([this] { m_intake.Run(); });
    }
    void TearDown() override {
        m_intake.Stop();
        if (m_thread.joinable()) {
            m_thread.join();
        }
        PrivateRoot::TearDown();
    }

    // As the command link passes it on.
    static void Request(std::uint32_t nId, std::uint16_t wPort) {
        AgentRequest request;
        request.wPort = wPort;
        const auto payload = MakeHlogRequest(nId, request).payload;
        const auto msg = MakeHlogMsg(payload.data(), payload.size());
        ASSERT_EQ(g_MsgQueue.PostMsg(g_nLogRecvThreadID[1], MSG_CT_MT_HLOG, msg.data(),
                                     static_cast<std::int32_t>(msg.size())),
                  1);
    }

    // The next answer to the agent, as "identifier:result".
    static std::string NextAnswer() {
        CPipeReader reader;
        PipeMsg msg{};
        MsgPayload answer;
        if (!WaitUntil([&] { return reader.Next(g_nCmdThreadID[0], msg); }) ||
            g_MsgQueue.TakeMsg(static_cast<std::int32_t>(msg.wParam), answer) != 1) {
            return "none";
        }
        const std::uint8_t* const pAnswer = &answer[kSendMsgPayloadOffset];
        return std::to_string(LoadLe32(pAnswer + kAnswerIdOffset)) + ":" +
               std::to_string(LoadLe32(pAnswer + kAnswerResultOffset));
    }

    // Sends a record, and returns when the intake holds it and waits for the file.
    void BlockIntake() const {
        CLogClient(m_wPort).Send(MakeRecord(0, 0, "meets a disk that hangs"));
        ASSERT_TRUE(WaitUntil([this] {
            const auto port = ReadUdpPort(m_wPort);
            return port.has_value() && port->nWaitingBytes == 0;
        }));
    }

    const std::uint16_t m_wPort = FreePort(SOCK_DGRAM);
    CLogFile m_logFile;
    CLogRecvThread m_intake;
    std::thread m_thread;
};

TEST_F(UploadSlots, AreEmptiedWhenTheQueueGaveUpOnTheEndNotice) {
    CPeerListener receiver;
    Request(7, receiver.Port());
    CPeerSocket session = receiver.Accept();
    ASSERT_TRUE(session.ReceiveFrame(&CBuff::CheckF1Frame));  // it has got as far as the handshake
    {
        const CLockGuard hang(m_logFile);
        BlockIntake();
        const std::int32_t nFree = g_MsgQueue.GetSmallFree();
        session.Close();
        ASSERT_TRUE(WaitUntil([nFree] { return g_MsgQueue.GetSmallFree() == nFree - 1; }));
        for (std::int32_t nSlots = 0; nSlots < CMsgQueue::kSmallSlots;
             nSlots += CMsgQueue::kSmallSlotsPerPass) {
            g_MsgQueue.ExpireOld(MonotonicMs() + CMsgQueue::kExpiryMs + 1);
        }
        ASSERT_EQ(g_MsgQueue.GetSmallFree(), CMsgQueue::kSmallSlots);
    }
    EXPECT_EQ(NextAnswer(), "7:" + std::to_string(UPLOAD_END_NO_HANDSHAKE));
    CPeerSocket sessions[kUploadSlots];
    for (CPeerSocket& next : sessions) {
        Request(8, receiver.Port());
        next = receiver.Accept();
        EXPECT_TRUE(next.IsOpen()) << "a slot is taken by nobody";
    }
    Request(9, receiver.Port());
    EXPECT_EQ(NextAnswer(), "9:0") << "one more than there are slots";
}

}  // namespace
