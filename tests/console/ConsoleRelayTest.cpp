// Real-time records on their way to the telnet client, and what becomes of those nobody watches.
#include "console/ConsoleHarness.h"

namespace {

std::string LineOf(const std::string& strName, const std::string& strText) {
    return "[" + strName + "] [2009-03-07 14:05:09] [" + strText + "]\r\n";
}

TEST_F(ConsoleTest, RelaysWholeRealTimeRecordsInOrderUnderTheChosenName) {
    Start();
    CTelnet telnet = LogIn();
    telnet.Send("set 2 100\r\n");
    EXPECT_EQ(NextFrame(), FrameHex(2, 100));
    EXPECT_TRUE(Post(2, "%s first"));
    EXPECT_TRUE(Post(2, "not real time", 3));
    EXPECT_TRUE(Post(77, "of another client"));
    EXPECT_TRUE(Post(2, "a part", kRealTimeType, 26));
    EXPECT_TRUE(IsTraced("DoPipeMsgDataArrive() failed get circle buffer!"));
    EXPECT_TRUE(Post(2, ""));
    const std::string strExpected = kSetReply + LineOf("gamma", "%s first") +
                                    LineOf("gamma", "of another client") + LineOf("gamma", "");
    EXPECT_EQ(telnet.Read(strExpected.size()), strExpected);
    EXPECT_EQ(NextFrame(0), "");
}

TEST_F(ConsoleTest, WhatASlowClientCannotTakeWaitsInOrder) {
    Start();
    CTelnet telnet = LogIn(4096);
    telnet.Send("set 1 1\r\n");
    EXPECT_EQ(telnet.Read(kSetReply.size()), kSetReply);
    const std::string strFiller(250, 'f');
    int nPosted = 0;
    // more than the send ring, the sockets and the circle buffer hold
    EXPECT_TRUE(WaitUntil([&] {
        while (Post(1, std::to_string(nPosted) + strFiller)) {
            ++nPosted;
        }
        return IsTraced("Send buffer full .This time cannot to send log.\n", 0);
    }));
    for (int nNumber = 0; nNumber < nPosted; ++nNumber) {
        ASSERT_EQ(telnet.ReadUntil("\r\n"), LineOf("beta", std::to_string(nNumber) + strFiller));
    }
}

TEST_F(ConsoleTest, ARecordAtThePromptStopsItsSenderOrWaitsWhenThatCannotBeTold) {
    m_Console.AddLogClient({7, 0, "without a port"});
    Start();
    CTelnet telnet = LogIn();
    EXPECT_TRUE(Post(99, "not configured"));
    EXPECT_TRUE(Post(4, "dropped"));
    EXPECT_EQ(NextFrame(), FrameHex(4, 0));
    EXPECT_TRUE(Post(7, "kept"));
    EXPECT_TRUE(IsTraced("Send real time log flag to log client failed!\n"));
    telnet.Send("set 0 1\r\n");
    const std::string strExpected = kSetReply + LineOf("alpha", "kept");
    EXPECT_EQ(telnet.Read(strExpected.size()), strExpected);
}

}  // namespace
