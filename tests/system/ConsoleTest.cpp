// The engineer's console of the real service: through the real telnet program, under load, against
// readers that stop and clients that come and go.
#include <fmt/format.h>

#include <future>

#include "peers/Telnet.h"
#include "system/SystemTest.h"

namespace {

LogRecord LiveRecord(int nIndex, const std::string& strText) {
    return MakeRecord(nIndex, kRealTimeType, strText);
}

// Whether the console shows such a record of alpha by this line, which has the time before.
bool IsLine(const std::string& strLine, const std::string& strText) {
    constexpr std::size_t kTextOffset = sizeof("[alpha] [2009-03-07 14:05:09] [") - 1;
    return strLine.starts_with("[alpha] [") && strLine.size() > kTextOffset &&
           strLine.substr(kTextOffset) == strText + "]\r\n";
}

TEST(Console, WorksThroughTheRealTelnetProgram) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start());
    CLogClient beta(service.RecordPort(), service.ControlPort(1));
    service.WriteFile("/session", fmt::format(R"(
        set timeout 10
        proc want {{text}} {{
            expect -exact $text {{}} timeout {{ puts "MISSING $text"; exit 3 }} \
                eof {{ puts "END BEFORE $text"; exit 4 }}
        }}
        spawn telnet 127.0.0.1 {}
        want "Password:"
        send "quietharbor\r"
        want "alpha=0,beta=1,gamma=2,"
        send "nonsense\r"
        want "!!!Command error!!!"
        want "gamma=2,"
        send "set 1 7\r"
        want "Press 'x' to quit send log."
        want {{[beta] [}}
        want {{] [live 5]}}
        send "x\r"
        want "gamma=2,"
        send "q\r"
        expect {{ eof {{ exit 0 }} timeout {{ exit 5 }} }}
    )",
                                              service.ConsolePort()));
    const std::string strCommand =
        fmt::format("expect '{0}/session' > '{0}/seen' 2>&1 < /dev/null", service.Root());
    auto engineer = std::async(std::launch::async, [&] { return std::system(strCommand.c_str()); });
    const auto on = beta.ReceiveControl(10000);
    EXPECT_TRUE(on && on->dwParam2 == 7);
    beta.Send(LiveRecord(1, "live 5"));
    const auto off = beta.ReceiveControl(10000);
    EXPECT_TRUE(off && off->dwParam2 == 0);
    EXPECT_EQ(engineer.get(), 0) << service.ReadFile("/seen");
    EXPECT_EQ(service.Stop(), 0);
}

// An engineer who watches alpha.
CTelnet Watch(const CService& service, int nReceiveBuffer = 0) {
    CTelnet telnet(service.ConsolePort(), nReceiveBuffer);
    telnet.LogIn();
    telnet.Send("set 0 1\r\n");
    telnet.ReadUntil("send log. \r\n");
    return telnet;
}

TEST(Console, TellsAClientThatNobodyWatchesToStop) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CLogClient gamma(service.RecordPort(), service.ControlPort(2));
    const LogcCtrlFrame expected{LOGC_CTRL_MAGIC, 24, 2, LOGC_CMD_REALTIME, 2, 0};
    for (const int nIndex : {2, 2, 77, 2}) {  // 77 is not configured
        gamma.Send(LiveRecord(nIndex, "unwatched"));
        if (nIndex == 2) {
            const auto frame = gamma.ReceiveControl(10000);
            ASSERT_TRUE(frame);
            EXPECT_EQ(std::memcmp(&*frame, &expected, sizeof(expected)), 0);
        }
    }
    EXPECT_EQ(CountIn(TodayPath(service)), 0U);  // live records are not stored
    EXPECT_EQ(service.Stop(), 0);
}

// As fast as lines are taken, complete, in order, each line whole.
TEST(Console, RelaysEveryRecordToAReaderThatKeepsUp) {
    const std::uint32_t nRecords = kSanitized ? 20000 : 100000;
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CTelnet telnet = Watch(service);
    CLogClient alpha(service.RecordPort());
    constexpr std::uint32_t kWindow = 100;  // under way at a time: less than every buffer holds
    std::uint32_t nSent = 0;
    for (std::uint32_t nRead = 0; nRead < nRecords; ++nRead) {
        for (; nSent < nRecords && nSent < nRead + kWindow; ++nSent) {
            alpha.Send(LiveRecord(0, std::to_string(nSent)));
        }
        ASSERT_TRUE(IsLine(telnet.ReadUntil("\r\n"), std::to_string(nRead))) << nRead;
    }
    EXPECT_EQ(service.Stop(), 0);
}

// A reader that stops for good costs live records, but no crash, no ordinary record, and no torn
// line.
TEST(Console, KeepsStoringWhileAReaderStandsStill) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CTelnet telnet = Watch(service, 4096);
    CNumberedSender sender(service.RecordPort(), TodayPath(service));
    CLogClient alpha(service.RecordPort());
    const auto Text = [](std::int64_t nNumber) {
        return std::to_string(nNumber) + std::string(200, 'x');
    };
    std::int64_t nLive = 0;
    std::uint32_t nStored = 0;
    const auto IsFull = [&] {
        return service.Trace().find("realtime log.circle_buffer full!") != std::string::npos;
    };
    for (; !IsFull() && nLive < 100000; nLive += 50) {
        for (int i = 0; i < 50; ++i) {
            alpha.Send(LiveRecord(0, Text(nLive + i)));
        }
        ASSERT_TRUE(sender.Send(nStored, 20));
        nStored += 20;
    }
    EXPECT_TRUE(IsFull());
    ASSERT_TRUE(sender.Send(nStored, 1000));
    nStored += 1000;
    EXPECT_EQ(CountIn(TodayPath(service)), nStored + nStored / kLogFileSlots);

    // What comes now is older records in order, then, after the gap, the newest one, which is sent
    // until there is room for it.
    std::int64_t nNumber = -1;
    for (int nLines = 1; nNumber != nLive; ++nLines) {
        if (nLines % 100 == 0) {
            alpha.Send(LiveRecord(0, Text(nLive)));
        }
        const std::string strLine = telnet.ReadUntil("\r\n");
        const std::int64_t nBefore = nNumber;
        nNumber = std::strtoll(strLine.substr(std::min<std::size_t>(strLine.size(), 31)).c_str(),
                               nullptr, 10);
        ASSERT_GT(nNumber, nBefore);
        ASSERT_TRUE(IsLine(strLine, Text(nNumber))) << strLine;
    }
    EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
