// What programs send is what the day's file holds: byte for byte, in order, across restarts, the
// end of the ring, midnight and sudden death.
#include <fcntl.h>

#include <sstream>
#include <thread>

#include "core/UniqueFd.h"
#include "system/SystemTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

std::string Bytes(const LogRecord& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

TEST(Store, HoldsEveryValidRecordByteForByteAndNothingElse) {
    CService service(TARVIK_LOGD);
    service.WriteFile("/dev/tarvik/TarvikLed", "");
    service.WriteFile("/log/20010101.log", "stale");
    ASSERT_TRUE(service.Start());

    CLogClient client(service.RecordPort());
    std::string strStored;
    std::uint32_t nStored = 0;
    const auto Expect = [&](const LogRecord& record) {
        strStored += Bytes(record);
        ++nStored;
    };
    for (int i = 0; i < 40; ++i) {
        const LogRecord record = MakeRecord(i % 3, i % 4, "record " + std::to_string(i));
        client.Send(record);
        Expect(record);
    }
    LogRecord full = MakeRecord(99, 3, std::string(280, 'x'));  // no NUL in the text
    full.byReserved = 0xEE;
    client.Send(full);
    Expect(full);
    const LogRecord lowest = MakeRecord(INT32_MIN, -1, "below zero");
    client.Send(lowest);
    Expect(lowest);
    const std::string strLong = Bytes(full) + std::string(100, 'y');
    client.SendBytes(strLong.data(), strLong.size());  // 400 bytes: its first 300 count
    Expect(full);

    for (const std::size_t nLen : {0U, 1U, 12U, 299U}) {
        client.SendBytes(strLong.data(), nLen);
    }
    LogRecord wrong = full;
    wrong.dwMagic ^= 1;
    client.Send(wrong);
    client.Send(MakeRecord(100, 0, "index too high"));
    client.Send(MakeRecord(INT32_MAX, INT32_MAX, "both too high"));
    client.Send(MakeRecord(0, 5, "type too high"));
    EXPECT_TRUE(WaitUntil([&] {
        return service.Trace().find("Run\nLogRecvThread recv nvalid log frame\n") !=
               std::string::npos;
    }));
    const LogRecord last = MakeRecord(0, 0, "last");
    client.Send(last);
    Expect(last);
    ASSERT_TRUE(WaitUntil([&] { return CountIn(TodayPath(service)) == nStored; }));

    LogFileHeader header{};
    header.dwMagic = LOG_RECORD_MAGIC;
    header.dwCount = nStored;
    const std::string strName = TodayPath(service).substr(service.Root().size());
    EXPECT_EQ(service.ReadFile(strName),
              std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + strStored);
    EXPECT_EQ(service.List("/log").size(), 1U);
    // twenty of the forty are of type 1 or 2
    std::string strLed;
    for (int i = 0; i < 20; ++i) {
        strLed += std::string("\1\0\0\0", 4);
    }
    EXPECT_EQ(service.ReadFile("/dev/tarvik/TarvikLed"), strLed);
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_THAT(service.Trace(), HasSubstr("LogRecvThread.cpp"));
    EXPECT_THAT(service.Trace(), HasSubstr("Run\nrecv thread exit!\n"));
}

TEST(Store, GoesOnAcrossRestartsAndTheEndOfTheRing) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    const std::string strPath = TodayPath(service);
    CNumberedSender sender(service.RecordPort(), strPath);
    ASSERT_TRUE(sender.Send(1, 10230));
    ASSERT_EQ(service.Stop(), 0);
    ASSERT_TRUE(service.Start(true));
    ASSERT_TRUE(sender.Send(10231, 8));
    EXPECT_EQ(CountIn(strPath), 10238U);
    ASSERT_TRUE(sender.Send(10239, 50));
    EXPECT_EQ(CountIn(strPath), 10289U);  // one more than was written: 10239 was passed over
    const DayFile day = ReadDayFile(strPath);
    ASSERT_EQ(day.records.size(), kLogFileSlots);
    for (std::uint32_t i = 0; i < kLogFileSlots; ++i) {
        ASSERT_EQ(RecordText(day.records[i]), CNumberedSender::Text(51 + i));
    }
    EXPECT_EQ(service.Stop(), 0);
}

// Killed while records come in, again and again: the file opens again each time, and no more than
// the record in flight is lost, which shows as a gap of none within what one run stored.
TEST(Store, OpensAgainAfterEveryKill) {
    CService service(TARVIK_LOGD);
    std::vector<std::uint32_t> counts;
    for (int nRun = 0; nRun < 8; ++nRun) {
        ASSERT_TRUE(service.Start(true)) << service.Trace();
        const std::string strPath = TodayPath(service);
        const std::uint32_t nBefore = CountIn(strPath);
        std::thread sender([&] {
            CLogClient client(service.RecordPort());
            for (std::uint32_t i = 0; i < 2000; ++i) {
                try {
                    client.Send(MakeRecord(0, nRun % 4, CNumberedSender::Text(i)));
                } catch (const std::exception&) {
                    return;  // killed meanwhile
                }
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
        EXPECT_TRUE(WaitUntil([&] { return CountIn(strPath) >= nBefore + 100; }));
        service.Signal(SIGKILL);
        EXPECT_EQ(service.Wait(), 128 + SIGKILL);
        sender.join();
        const DayFile day = ReadDayFile(strPath);
        ASSERT_GE(day.header.dwCount, nBefore + 100);
        ASSERT_EQ(day.records.size(), day.header.dwCount);
        for (std::uint32_t i = nBefore; i < day.header.dwCount; ++i) {
            ASSERT_EQ(RecordText(day.records[i]), CNumberedSender::Text(i - nBefore));
        }
    }
}

TEST(Store, StartsANewFileAtMidnightAndLosesNothing) {
    UseZone(ZoneBeforeMidnight(3));
    CService service(TARVIK_LOGD);
    for (const char* szName : {"20010101.log", "20010102.log", "20010103.log", "20010104.log"}) {
        service.WriteFile(std::string("/hislog/") + szName, szName);
    }
    ASSERT_TRUE(service.Start());
    const std::string strYesterday = TodayPath(service);
    const std::string strName = strYesterday.substr(strYesterday.rfind('/') + 1);
    CLogClient client(service.RecordPort());
    std::uint32_t nSent = 0;
    const auto Send = [&] { client.Send(MakeRecord(1, 0, CNumberedSender::Text(nSent++))); };
    ASSERT_TRUE(WaitUntil([&] {
        Send();
        return service.List("/hislog").back() == strName;
    }));
    Send();
    const std::string strToday = TodayPath(service);
    ASSERT_NE(strToday, strYesterday);
    const std::string strMoved = service.Path("/hislog/" + strName);
    ASSERT_TRUE(WaitUntil([&] { return CountIn(strMoved) + CountIn(strToday) == nSent; }));

    EXPECT_THAT(service.List("/hislog"),
                ElementsAre("20010102.log", "20010103.log", "20010104.log", strName));
    EXPECT_EQ(service.List("/log").size(), 1U);
    std::vector<LogRecord> records = ReadDayFile(strMoved).records;
    const std::vector<LogRecord> later = ReadDayFile(strToday).records;
    EXPECT_FALSE(records.empty() || later.empty());
    records.insert(records.end(), later.begin(), later.end());
    for (std::uint32_t i = 0; i < nSent; ++i) {
        ASSERT_EQ(RecordText(records[i]), CNumberedSender::Text(i));
    }
    EXPECT_EQ(service.Stop(), 0);
    // six entries were looked at, "." and ".." among them
    std::string strSteps;
    std::istringstream output(service.Output());
    for (std::string strLine; std::getline(output, strLine);) {
        if (strLine.starts_with("switch file ")) {
            strSteps += strLine.substr(12, strLine.find('.') - 12) + " ";
        }
    }
    EXPECT_EQ(strSteps, "1 2 3 4 5 6 7 8 9 8 9 8 9 8 9 8 9 8 9 10 12 13 14 15 16 ");
}

}  // namespace
