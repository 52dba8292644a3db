// tarvik-log stats --live: every record that was sent is seen, as stored or as dropped by the
// kernel.
#include <sys/socket.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "peers/LogClient.h"
#include "peers/Service.h"
#include "reading/IntakeCounters.h"
#include "tools/ReadingTest.h"

namespace {

using Json = nlohmann::json;

#if defined(__SANITIZE_ADDRESS__)
constexpr std::uint64_t kSent = 100'000;
#else
constexpr std::uint64_t kSent = 1'000'000;
#endif

class LiveStats : public ReadingTest {
protected:
    std::vector<std::string> LiveLines() const { return Lines(Read("/live")); }
    // A count of the last line, which is over all lines.
    std::uint64_t InAll(const char* szName) const {
        return Json::parse(LiveLines().back())[szName].get<std::uint64_t>();
    }
};

// Sent as fast as one program can, which is more than the intake of a small machine takes.
TEST_F(LiveStats, AccountsForEveryRecordOfAFlood) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start(true));
    const pid_t nPid = Start("stats --live -o json", "live", service.Root());
    ASSERT_TRUE(WaitUntil([this] { return !LiveLines().empty(); }));
    CLogClient client(service.RecordPort());
    const LogRecord record = MakeRecord(0, 0, "one of many");
    for (std::uint64_t i = 0; i < kSent; ++i) {
        client.Send(record);
    }
    EXPECT_TRUE(WaitUntil([&] { return ReadUdpPort(service.RecordPort())->nWaitingBytes == 0; }));
    EXPECT_TRUE(WaitUntil([this] {
        return InAll("stored_in_all") + InAll("dropped_in_all") == kSent;
    })) << LiveLines().back();
    EXPECT_EQ(End(nPid, SIGINT), 0);
    std::uint64_t nStored = 0;
    for (const std::string& strLine : LiveLines()) {
        nStored += Json::parse(strLine)["stored"].get<std::uint64_t>();
    }
    EXPECT_EQ(nStored, InAll("stored_in_all"));
}

TEST_F(LiveStats, CountsOverTheChangeOfDayAndSaysWhenNobodyListens) {
    const LogRecord record = StampedRecord(0, 0, 1, "text");
    Write("/log/20261122.log", DayBytes({record, record}));
    CStoredCounter counter;
    EXPECT_EQ(counter.Read(), 0);
    Write("/log/20261122.log", DayBytes({record, record, record}));
    EXPECT_EQ(counter.Read(), 1);
    // one more before midnight, two behind it
    std::filesystem::remove(m_strRoot + "/log/20261122.log");
    Write("/hislog/20261122.log", DayBytes({record, record, record, record}));
    Write("/log/20261123.log", DayBytes({record, record}));
    EXPECT_EQ(counter.Read(), 4);

    const Result result = Run(fmt::format("stats --live --port {}", FreePort(SOCK_DGRAM)));
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, testing::HasSubstr("no program of this machine has UDP port"));
}

}  // namespace
