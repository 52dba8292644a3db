// Real-time records on their way to the telnet client, and what becomes of those nobody watches.
#include <gmock/gmock.h>

#include "console/ConsoleHarness.h"

namespace {

using testing::EndsWith;

std::string LineOf(const std::string& strName, const std::string& strText) {
    return "[" + strName + "] [2009-03-07 14:05:09] [" + strText + "]\r\n";
}

TEST_F(ConsoleTest, RelaysEveryRealTimeRecordInOrderUnderTheChosenName) {
    AddFiveClients();
    Start();
    const auto pClient = Watch("set 2 100");
    LogRecord other = MakeRecord(2, "not real time");
    other.nType = 3;
    const std::string strLongest(280, 'z');
    EXPECT_TRUE(Post(MakeRecord(2, "first")));
    EXPECT_TRUE(Post(other));
    EXPECT_TRUE(Post(MakeRecord(77, "%s of another client")));
    EXPECT_TRUE(Post(MakeRecord(2, strLongest)));
    EXPECT_TRUE(Post(MakeRecord(2, "")));
    const std::string strLines = LineOf("gamma", "first") +
                                 LineOf("gamma", "%s of another client") +
                                 LineOf("gamma", strLongest) + LineOf("gamma", "");
    EXPECT_EQ(pClient->Read(strLines.size()), strLines);
    EXPECT_TRUE(WaitUntil([] { return Waiting() == 0; }));
    EXPECT_THAT(Trace(),
                EndsWith(" DoPipeMsgDataArrive\nCCommunicatThread DoPipeMsgDataArrive recv "
                         "unRealtimeLog ...\n"));
    EXPECT_TRUE(m_Control.IsSilent());
}

TEST_F(ConsoleTest, WhatASlowClientCannotTakeWaitsInOrder) {
    AddFiveClients();
    Start();
    const auto pClient = Watch("set 1 1", 4096);
    int nPosted = 0;
    const auto PostNext = [&] {
        const std::string strNumber = std::to_string(nPosted) + " ";
        const bool bTaken = Post(MakeRecord(1, strNumber + std::string(250, 'f')));
        nPosted += bTaken ? 1 : 0;
        return bTaken;
    };
    const auto IsFull = [&] {
        return Trace().ends_with(
            " DoPipeMsgDataArrive\nSend buffer full .This time cannot to send log.\n");
    };
    // More than the send ring, the sockets and the circle buffer hold.
    EXPECT_TRUE(WaitUntil([&] {
        while (PostNext()) {
        }
        return IsFull();
    }));
    EXPECT_GE(nPosted, 2 * 300);
    for (int nNumber = 0; nNumber < nPosted; ++nNumber) {
        const std::string strLine =
            LineOf("beta", std::to_string(nNumber) + " " + std::string(250, 'f'));
        ASSERT_EQ(pClient->Read(strLine.size()), strLine);
    }
    EXPECT_EQ(Waiting(), 0u);
    EXPECT_EQ(m_Console.GetStatus(), SENDING_REAL_TIME_LOG);
}

TEST_F(ConsoleTest, ASenderThatNobodyWatchesIsStopped) {
    AddFiveClients();
    Start();
    EXPECT_TRUE(Post(MakeRecord(3, "no client yet")));
    EXPECT_EQ(m_Control.ReadHex(), FrameHex(3, 0));
    const auto pClient = LogIn();
    EXPECT_TRUE(Post(MakeRecord(99, "not configured")));
    EXPECT_TRUE(Post(MakeRecord(4, "at the prompt")));
    EXPECT_TRUE(Post(MakeRecord(4, "once more")));
    EXPECT_EQ(m_Control.ReadHex(), FrameHex(4, 0));
    EXPECT_EQ(m_Control.ReadHex(), FrameHex(4, 0));
    EXPECT_TRUE(WaitUntil([] { return Waiting() == 0; }));
    pClient->Send("?\r\n");
    EXPECT_EQ(pClient->Read(kHelp.size()), kHelp);  // and nothing of the records
    EXPECT_TRUE(m_Control.IsSilent());
}

TEST_F(ConsoleTest, ASenderThatCannotBeToldKeepsItsRecordUntilSomebodyWatches) {
    AddFiveClients();
    AddClient(7, 0, "unreachable");
    Start();
    EXPECT_TRUE(Post(MakeRecord(7, "kept")));
    EXPECT_TRUE(WaitUntil([&] {
        return Trace().ends_with(
            " DoPipeMsgDataArrive\nCCommunicatThread DoPipeMsgDataArrive Send real time log flag "
            "to "
            "log client failed!\n");
    }));
    EXPECT_EQ(Waiting(), kRecordBytes);
    const auto pClient = LogIn();
    pClient->Send("set 0 1\r\n");
    const std::string strLine = kSetReply + LineOf("alpha", "kept");
    EXPECT_EQ(pClient->Read(strLine.size()), strLine);
}

TEST_F(ConsoleTest, APartOfARecordIsDropped) {
    AddFiveClients();
    Start();
    const auto pClient = Watch("set 0 1");
    EXPECT_TRUE(Post("short", 5));
    EXPECT_TRUE(WaitUntil([] { return Waiting() == 0; }));
    EXPECT_THAT(Trace(), EndsWith(" DoPipeMsgDataArrive\nCCommunicatThread DoPipeMsgDataArrive() "
                                  "failed get circle buffer!"));
    EXPECT_TRUE(Post(MakeRecord(0, "whole")));
    const std::string strLine = LineOf("alpha", "whole");
    EXPECT_EQ(pClient->Read(strLine.size()), strLine);
}

// Each data-arrived message wakes the console once, so that clients get their turn between.
TEST_F(ConsoleTest, OneWakeUpHandlesOneMessage) {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    EXPECT_TRUE(PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED));
    EXPECT_TRUE(PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_DATA_ARRIVED));
    EXPECT_TRUE(PostPipeMsg(g_nMsgPipe[1], LOG_THREAD_QUIT));
    const CTelnet client(m_wPort);
    testing::internal::CaptureStdout();
    EXPECT_EQ(m_Console.ThreadRun(), 0);
    const std::string strArrived = "OnPipeMsg() ...Get LOG_THREAD_DATA_ARRIVED message.\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "ThreadRun() ...\n" + strArrived +
                  "telnet connect to me...Will OnAccept()...\n"
                  "CommunicatThread OnAccept() \n"
                  "Connection Close()...\n"
                  "CommunicatThread DoWelcome()....\n"
                  "CommunicatThread DoWelcome() success....\n"
                  "OnAccept return ...\n" +
                  strArrived +
                  "______________CommunicatThread recv LOG_THREAD_QUIT pipe message.\n"
                  "Connection Close()...\n"
                  "************************CommunicatThread exit.\n");
}

}  // namespace
