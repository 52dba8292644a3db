// The intake without the rest of the service: what it hands to upload sessions, what it allocates,
// how it stops.
#include "logstore/LogRecvThread.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "core/Progress.h"
#include "logstore/CountedNew.h"
#include "logstore/LogFile.h"
#include "peers/DayFile.h"
#include "peers/LogClient.h"
#include "peers/PrivateRoot.h"
#include "peers/Service.h"

namespace {

TEST(UploadCopy, IsHeadTextAndNulWithinTheRecord) {
    for (const std::size_t nText : {0U, 1U, 278U, 279U, 280U}) {  // in front of the NUL; 280: none
        LogRecord record{};
        record.nIndex = 7;
        std::memset(record.szText, 'z', nText);
        std::uint8_t byCopy[kRecordBytes];
        std::memset(byCopy, 0xEE, sizeof(byCopy));
        const std::size_t nBytes = std::min(kRecordHeadBytes + nText + 1, kRecordBytes);
        ASSERT_EQ(MakeUploadCopy(record, byCopy), nBytes);
        EXPECT_EQ(std::memcmp(byCopy, &record, nBytes - 1), 0);
        EXPECT_EQ(byCopy[nBytes - 1], 0);
        EXPECT_TRUE(nBytes == kRecordBytes || byCopy[nBytes] == 0xEE);
    }
}

class Intake : public PrivateRoot {
protected:
    void SetUp() override {
        PrivateRoot::SetUp();
        ASSERT_TRUE(CreateMsgqueue());
        SilenceProgress();
    }
};

TEST_F(Intake, EndsAtOnceWhenItWasStoppedBeforeItBegan) {
    CLogRecvThread intake;
    ASSERT_EQ(intake.Init(FreePort(SOCK_DGRAM)), 0);
    intake.Stop();
    EXPECT_EQ(intake.Run(), 0);
}

TEST_F(Intake, AllocatesNothingForAStoredRecord) {
    CLogFile logFile;
    {
        const CLockGuard guard(logFile);
        ASSERT_EQ(logFile.OpenLogFile(), 0);
    }
    CLogRecvThread intake;
    intake.SetLogFile(&logFile);
    const std::uint16_t wPort = FreePort(SOCK_DGRAM);
    ASSERT_EQ(intake.Init(wPort), 0);
    std::thread thread([&intake] {
        t_bCountsNew = true;
        intake.Run();
    });
    CLogClient client(wPort);
    const auto Store = [&](std::uint32_t nRecords) {
        const std::uint32_t nBefore = ReadDayFile(logFile.GetFileName()).header.dwCount;
        for (std::uint32_t i = 0; i < nRecords; ++i) {
            client.Send(MakeRecord(0, static_cast<std::int32_t>(i % 4), "text"));
        }
        return WaitUntil([&] {
            return ReadDayFile(logFile.GetFileName()).header.dwCount == nBefore + nRecords;
        });
    };
    EXPECT_TRUE(Store(1));  // by then the thread has done what it does once
    const int nBefore = g_nCountedAllocations;
    EXPECT_GT(nBefore, 0);  // the count counts
    EXPECT_TRUE(Store(100));
    EXPECT_EQ(g_nCountedAllocations, nBefore);
    intake.Stop();
    thread.join();
}

}  // namespace
