// Pipe messages arrive whole and in order, however the bytes come, or not at all.
#include "core/ThreadMsg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include <cstring>

#include "core/TestPipe.h"

namespace {

using testing::ElementsAre;

void WriteBytes(const CTestPipe& pipe, const PipeMsg& msg, std::size_t nFrom, std::size_t nTo) {
    char byMsg[sizeof(msg)];
    std::memcpy(byMsg, &msg, sizeof(msg));
    ASSERT_EQ(write(pipe.WriteEnd(), byMsg + nFrom, nTo - nFrom),
              static_cast<ssize_t>(nTo - nFrom));
}

TEST(ThreadMsg, ArePutTogetherFromParts) {
    CTestPipe pipe;
    const PipeMsg msgFirst{MSG_TIMER, 4, 0xFFFFFFFF};
    const PipeMsg msgSecond{LOG_THREAD_QUIT, 0, 0};
    WriteBytes(pipe, msgFirst, 0, 5);
    EXPECT_THAT(pipe.Drain(), ElementsAre());
    WriteBytes(pipe, msgFirst, 5, 12);
    WriteBytes(pipe, msgSecond, 0, 1);
    EXPECT_THAT(pipe.Drain(), ElementsAre(msgFirst));
    WriteBytes(pipe, msgSecond, 1, 12);
    EXPECT_THAT(pipe.Drain(), ElementsAre(msgSecond));
}

TEST(ThreadMsg, ArriveInTheOrderWritten) {
    CTestPipe pipe;
    EXPECT_TRUE(PostPipeMsg(pipe.WriteEnd(), LOG_THREAD_DATA_ARRIVED));
    EXPECT_TRUE(PostPipeMsg(pipe.WriteEnd(), MSG_QUEUE_ARRIVED, 5000, MSG_CT_MT_HLOG));
    EXPECT_TRUE(PostPipeMsg(pipe.WriteEnd(), LOG_THREAD_QUIT));
    EXPECT_THAT(pipe.Drain(),
                ElementsAre(PipeMsg{1002, 0, 0}, PipeMsg{3020, 5000, 3}, PipeMsg{1001, 0, 0}));
}

TEST(ThreadMsg, AreRefusedWholeByAFullPipe) {
    CTestPipe pipe;
    ASSERT_GT(fcntl(pipe.WriteEnd(), F_SETPIPE_SZ, 4096), 0);
    const std::uint32_t nWritten = pipe.Fill();
    int nBytes = 0;
    ASSERT_EQ(ioctl(pipe.ReadEnd(), FIONREAD, &nBytes), 0);
    EXPECT_EQ(static_cast<std::uint32_t>(nBytes), nWritten * sizeof(PipeMsg));
    const std::vector<PipeMsg> msgs = pipe.Drain();
    ASSERT_EQ(msgs.size(), nWritten);
    for (std::uint32_t nMsg = 0; nMsg < nWritten; ++nMsg) {
        ASSERT_EQ(msgs[nMsg].wParam, nMsg);
    }
    EXPECT_TRUE(PostPipeMsg(pipe.WriteEnd(), LOG_THREAD_QUIT)) << "there is room again";
}

TEST(ThreadMsg, EndWithThePipe) {
    CTestPipe pipe;
    ASSERT_TRUE(PostPipeMsg(pipe.WriteEnd(), LOG_THREAD_QUIT));
    WriteBytes(pipe, PipeMsg{LOG_THREAD_QUIT, 0, 0}, 0, 11);
    pipe.CloseWriteEnd();
    EXPECT_THAT(pipe.Drain(), ElementsAre(PipeMsg{LOG_THREAD_QUIT, 0, 0}));
    PipeMsg msg{};
    EXPECT_FALSE(pipe.Next(msg)) << "the last one never came whole";
}

TEST(CreateMsgqueue, MakesEveryPipeNonBlockingAndLeavesNoneToChildren) {
    ASSERT_TRUE(CreateMsgqueue());
    std::vector<const int*> pipes{g_nCmdThreadID, g_nLogRecvThreadID, g_nMsgPipe};
    for (const auto& nEnds : g_nUploadThreadID) {
        pipes.push_back(nEnds);
    }
    std::uint32_t nMark = 0;
    for (const int* pEnds : pipes) {
        for (int nEnd = 0; nEnd < 2; ++nEnd) {
            EXPECT_TRUE(fcntl(pEnds[nEnd], F_GETFL) & O_NONBLOCK) << nMark;
            EXPECT_TRUE(fcntl(pEnds[nEnd], F_GETFD) & FD_CLOEXEC) << nMark;
        }
        EXPECT_TRUE(PostPipeMsg(pEnds[1], LOG_THREAD_QUIT, ++nMark));
    }
    nMark = 0;
    for (const int* pEnds : pipes) {
        CPipeReader reader;
        PipeMsg msg{};
        EXPECT_TRUE(reader.Next(pEnds[0], msg));
        EXPECT_EQ(msg.wParam, ++nMark) << "what goes into a pipe comes out of that pipe";
        close(pEnds[0]);
        close(pEnds[1]);
    }
}

}  // namespace
