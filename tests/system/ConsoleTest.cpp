// The engineer's console of the real service: through the real telnet program, under load, against
// readers that stop and clients that come and go.
#include <dirent.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "peers/Telnet.h"
#include "system/SystemTest.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;

LogRecord LiveRecord(int nIndex, std::uint32_t nNumber) {
    LogRecord record = MakeRecord(nIndex, kRealTimeType, "live " + std::to_string(nNumber));
    record.wYear = 2009;
    record.byMonth = 3;
    record.byDay = 7;
    record.byHour = 14;
    record.byMinute = 5;
    record.bySecond = 9;
    return record;
}

std::string LiveLine(const std::string& strName, std::uint32_t nNumber) {
    return fmt::format("[{}] [2009-03-07 14:05:09] [live {}]\r\n", strName, nNumber);
}

TEST(Console, WorksThroughTheRealTelnetProgram) {
    CService service(TARVIK_LOGD);
    service.WriteFile("/app/appversion", "appliance 4.2\n");
    service.WriteFile("/etc/boa/boa.conf", "Port 8080\n");
    ASSERT_TRUE(service.Start());
    CLogClient alpha(service.RecordPort(), service.ControlPort(0));
    CLogClient beta(service.RecordPort(), service.ControlPort(1));
    std::atomic<bool> bStop{false};
    std::thread clients([&] {  // both do as their control frames say
        bool bStreaming[2] = {};
        for (std::uint32_t i = 0; !bStop; ++i) {
            CLogClient* const pClients[] = {&alpha, &beta};
            for (int n = 0; n < 2; ++n) {
                if (const auto frame = pClients[n]->ReceiveControl(2)) {
                    bStreaming[n] = frame->dwParam2 != 0;
                }
                if (bStreaming[n]) {
                    pClients[n]->Send(LiveRecord(n, i));
                }
            }
        }
    });
    service.WriteFile("/session", fmt::format(R"(
        set timeout 10
        proc want {{text}} {{
            expect -exact $text {{}} timeout {{ puts "MISSING $text"; exit 3 }} \
                eof {{ puts "END BEFORE $text"; exit 4 }}
        }}
        spawn telnet 127.0.0.1 {}
        want "appliance 4.2"
        want "WebServer Listen Port=8080"
        want "Welcome tarvik realtime log debug !"
        want "Password:"
        send "quietharbor\r"
        want "alpha=0,beta=1,gamma=2,"
        send "?\r"
        want "Support Command as following:"
        want "gamma=2,"
        send "nonsense\r"
        want "!!!Command error!!!"
        want "gamma=2,"
        send "set 0 100\r"
        want "Press 'x' to quit send log."
        want {{[alpha] [2009-03-07 14:05:09] [live }}
        want {{[alpha] [2009-03-07 14:05:09] [live }}
        send "x\r"
        want "gamma=2,"
        send "set 1 7\r"
        want "Press 'x' to quit send log."
        want {{[beta] [2009-03-07 14:05:09] [live }}
        send "x\r"
        want "gamma=2,"
        send "q\r"
        expect {{ eof {{ exit 0 }} timeout {{ exit 5 }} }}
    )",
                                              service.ConsolePort()));
    const std::string strLog = service.Path("/expect.log");
    const std::string strCommand =
        fmt::format("expect {} > {} 2>&1 < /dev/null", service.Path("/session"), strLog);
    const int nStatus = std::system(strCommand.c_str());
    bStop = true;
    clients.join();
    EXPECT_EQ(nStatus, 0) << service.ReadFile("/expect.log");
    EXPECT_EQ(service.Stop(), 0);
}

TEST(Console, TellsAClientThatNobodyWatchesToStop) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CLogClient gamma(service.RecordPort(), service.ControlPort(2));
    for (int i = 0; i < 3; ++i) {
        gamma.Send(LiveRecord(2, 0));  // each draws its own frame
        const auto frame = gamma.ReceiveControl(10000);
        ASSERT_TRUE(frame);
        const LogcCtrlFrame expected{LOGC_CTRL_MAGIC, 24, 2, LOGC_CMD_REALTIME, 2, 0};
        EXPECT_EQ(std::memcmp(&*frame, &expected, sizeof(expected)), 0);
    }
    gamma.Send(LiveRecord(77, 0));  // an index that is not configured draws none
    EXPECT_FALSE(gamma.ReceiveControl(200));
    EXPECT_EQ(CountIn(TodayPath(service)), 0U);  // live records are not stored
    EXPECT_EQ(service.Stop(), 0);
}

// As fast as lines are taken, complete, in order, each line whole.
TEST(Console, RelaysEveryRecordToAReaderThatKeepsUp) {
    const std::uint32_t nRecords = kSanitized ? 20000 : 100000;
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CTelnet telnet(service.ConsolePort());
    telnet.LogIn();
    telnet.Send("set 0 1\r\n");
    telnet.ReadUntil("send log. \r\n");
    CLogClient alpha(service.RecordPort());
    constexpr std::uint32_t kWindow = 100;  // under way at a time: less than every buffer holds
    std::uint32_t nSent = 0;
    for (std::uint32_t nRead = 0; nRead < nRecords; ++nRead) {
        for (; nSent < nRecords && nSent < nRead + kWindow; ++nSent) {
            alpha.Send(LiveRecord(0, nSent));
        }
        ASSERT_EQ(telnet.ReadUntil("\r\n"), LiveLine("alpha", nRead));
    }
    EXPECT_EQ(service.Stop(), 0);
}

// A reader that stops for good costs live records, but no crash, no ordinary record, and no torn
// line.
TEST(Console, KeepsStoringWhileAReaderStandsStill) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CTelnet telnet(service.ConsolePort(), 4096);
    telnet.LogIn();
    telnet.Send("set 0 1\r\n");
    telnet.ReadUntil("send log. \r\n");
    CNumberedSender sender(service.RecordPort(), TodayPath(service));
    CLogClient alpha(service.RecordPort());
    std::uint32_t nLive = 0;
    std::uint32_t nStored = 0;
    const auto IsFull = [&] {
        return service.Trace().find("realtime log.circle_buffer full!") != std::string::npos;
    };
    while (!IsFull() && nLive < 200000) {
        for (int i = 0; i < 50; ++i) {
            LogRecord record = LiveRecord(0, nLive++);
            std::memset(record.szText + 20, 'x', 200);
            alpha.Send(record);
        }
        ASSERT_TRUE(sender.Send(nStored, 20));
        nStored += 20;
    }
    EXPECT_TRUE(IsFull());
    ASSERT_TRUE(sender.Send(nStored, 1000));
    nStored += 1000;
    EXPECT_EQ(CountIn(TodayPath(service)), nStored + nStored / kLogFileSlots);

    // What comes now is older records in order, then, after the gap, the newest ones.
    alpha.Send(LiveRecord(0, nLive));
    const std::string strLast = LiveLine("alpha", nLive + 1);
    std::atomic<bool> bStop{false};
    std::thread later([&] {
        while (!bStop) {
            alpha.Send(LiveRecord(0, nLive + 1));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    std::int64_t nBefore = -1;
    std::string strLine;
    while ((strLine = telnet.ReadUntil("\r\n")) != strLast) {
        const std::int64_t nNumber = std::strtoll(strLine.c_str() + 36, nullptr, 10);
        if (!strLine.starts_with("[alpha] [2009-03-07 14:05:09] [live ") ||
            !strLine.ends_with("]\r\n") || nNumber <= nBefore) {
            ADD_FAILURE() << nBefore << " then " << strLine;
            break;
        }
        nBefore = nNumber;
    }
    bStop = true;
    later.join();
    EXPECT_GT(nBefore, 100);
    EXPECT_EQ(service.Stop(), 0);
}

std::size_t CountEntries(const std::string& strDirectory) {
    const auto entries = fs::directory_iterator(strDirectory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// 10,000 clients leave nothing behind. One shell command runs for each that is served, so most come
// while another is.
TEST(Console, LeavesNothingOfClientsThatAreGone) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    CTelnet first(service.ConsolePort());  // behind it the start is over, with what it opens
    first.Send("quiet\r\n");
    ASSERT_THAT(first.ReadToEnd(), EndsWith("<end>"));
    const std::string strProcess = fmt::format("/proc/{}", service.Pid());
    const std::size_t nDescriptors = CountEntries(strProcess + "/fd");
    const std::size_t nThreads = CountEntries(strProcess + "/task");
    const auto Serve = [&](int nClients) {
        for (int i = 0; i < nClients; ++i) {
            CTelnet telnet(service.ConsolePort());
            ASSERT_THAT(telnet.ReadUntil("Password:"), HasSubstr("Welcome"));
            // what ends it: a wrong password, an empty line, the client itself
            if (i % 3 != 2) {
                telnet.Send(i % 3 == 0 ? "quiet\r\n" : "\r\n");
                ASSERT_EQ(telnet.ReadToEnd(), "<end>");
            } else {
                // the next client would still be turned away until the console has seen the end
                telnet.Close();
                ASSERT_TRUE(
                    WaitUntil([&] { return CountEntries(strProcess + "/fd") == nDescriptors; }));
            }
        }
    };
    ASSERT_NO_FATAL_FAILURE(Serve(kSanitized ? 30 : 300));
    CTelnet served(service.ConsolePort());
    served.LogIn();
    for (int i = 0; i < (kSanitized ? 500 : 9700); ++i) {
        ASSERT_EQ(CTelnet(service.ConsolePort()).ReadToEnd(), "you.<end>");
    }
    served.Send("?\r\n");
    EXPECT_THAT(served.ReadUntil("gamma=2,\r\n"), HasSubstr("Support Command"));
    served.Send("q\r\n");
    EXPECT_EQ(served.ReadToEnd(), "<end>");
    EXPECT_TRUE(WaitUntil([&] { return CountEntries(strProcess + "/fd") == nDescriptors; }));
    EXPECT_EQ(CountEntries(strProcess + "/task"), nThreads);
    EXPECT_EQ(service.Stop(), 0);
}

// Five senders of both kinds of records while an engineer watches, stops and leaves again and
// again: the store counts every record. Under the thread sanitizer this is where races would show.
TEST(Console, StandsFiveSendersAndABusyEngineer) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    const int nSeconds = kSanitized ? 15 : 3;
    std::atomic<bool> bStop{false};
    std::atomic<std::uint32_t> nStored{0};
    const auto CountedRecords = [&] {
        const std::uint32_t nCount = CountIn(TodayPath(service));
        return nCount - nCount / kLogFileUnits;  // multiples of the units are passed over
    };
    std::vector<std::thread> senders;
    senders.reserve(5);
    for (int n = 0; n < 5; ++n) {
        senders.emplace_back([&, n] {
            CLogClient client(service.RecordPort());
            while (!bStop) {
                // as many as the socket's buffer holds, also when the service gets no processor
                WaitUntil([&] { return bStop || nStored - CountedRecords() < 40; });
                ++nStored;
                client.Send(MakeRecord(n, n % 4, "stored"));
                client.Send(LiveRecord(n % 3, 1));
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::seconds(nSeconds);
    while (std::chrono::steady_clock::now() < tEnd) {
        CTelnet telnet(service.ConsolePort());
        telnet.LogIn();
        for (const char* szSet : {"set 0 1\r\n", "set 2 65535\r\n"}) {
            telnet.Send(szSet);
            telnet.ReadUntil("send log. \r\n");
            EXPECT_THAT(telnet.ReadUntil("\r\n"), HasSubstr("[live 1]"));
            telnet.Send("x");
            telnet.ReadUntil("gamma=2,\r\n");
        }
        telnet.Send("q\r\n");
        EXPECT_THAT(telnet.ReadToEnd(), HasSubstr("<end>"));
    }
    bStop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    EXPECT_TRUE(WaitUntil([&] { return CountedRecords() == nStored; }))
        << CountedRecords() << " of " << nStored;
    EXPECT_EQ(service.Stop(), 0);
}

}  // namespace
