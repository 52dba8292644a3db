// The real service while, in a random order, its disk fills, its files are damaged or vanish, its
// peers stall and reset, kill -9 strikes and clock and zone jump; and a month of midnights. After
// each, all that is stored is compared with a model, and everything is used.
#include <endian.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iostream>
#include <optional>
#include <random>

#include "peers/Telnet.h"
#include "system/StoreModel.h"
#include "system/SystemTest.h"
#include "tools/Agent.h"
#include "tools/Receiver.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kSeed = 20261123;
constexpr std::size_t kDiskBytes = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kStalledBytes = std::size_t{1024} * 1024;
constexpr std::int64_t kDayMs = 86'400'000;

void Must(bool bHolds, const std::string& strElse) {
    if (!bHolds) {
        throw std::runtime_error(strElse);
    }
}

std::uint32_t Setting(const char* szVariable, std::uint32_t nDefault) {
    const char* szValue = std::getenv(szVariable);
    return szValue == nullptr ? nDefault
                              : static_cast<std::uint32_t>(std::strtoul(szValue, nullptr, 10));
}

// A service with all its peers, and the model of what it stores. What does not hold is thrown.
class Adversity : public testing::Test {
protected:
    // strZone: time zone of the service where its clock can be moved. Otherwise, and for none, it
    // has no TZ but a zone file that MoveZone changes, if that is allowed here.
    void SetUpService(const std::string& strZone) {
        m_bClock = !CService::IsEmulated() && m_Service.FakeClock();
        const bool bFixed = m_bClock && !strZone.empty();
        const std::string strStart = bFixed ? strZone : ZoneBeforeMidnight(12 * 60 * 60);
        UseZone(strStart);
        const auto nOffset = Local().tm_gmtoff;
        std::string strZoneFile(54, '\0');
        strZoneFile.replace(0, 4, "TZif");
        strZoneFile[39] = 1;  // one kind of local time, no change of it
        strZoneFile[43] = 4;  // bytes of its name
        strZoneFile.replace(50, 3, "DAY");
        m_Service.WriteFile("/zone", strZoneFile);
        m_bZone = !bFixed && m_Mounts.File(m_Service.Path("/zone"), "/etc/localtime");
        if (m_bZone) {
            WriteZone(nOffset);
            unsetenv("TZ");
        }
        m_Service.SetEnvironment("TZ", m_bZone ? "" : strStart);
        if (m_bClock) {
            MoveClock(0);
        }
        m_Service.WriteFile("/hislog/big", std::string(kStalledBytes, 'f'));
        m_Service.WriteFile("/etc/boa/boa.conf", "Port 80\n");
    }
    std::string Bytes(std::size_t nBytes) {
        std::string strBytes(nBytes, '\0');
        std::generate(strBytes.begin(), strBytes.end(),
                      [this] { return static_cast<char>(m_Rng()); });
        return strBytes;
    }

    std::int64_t NowMs() const {  // as the service has it
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count() +
               m_nClockMs;
    }
    static std::tm Local(std::time_t tTime) {
        std::tm tmLocal{};
        tzset();
        localtime_r(&tTime, &tmLocal);
        return tmLocal;
    }
    std::tm Local() const { return Local(static_cast<std::time_t>(NowMs() / 1000)); }
    std::string Name() const {
        char szName[32];
        const std::tm tmNow = Local();
        std::strftime(szName, sizeof(szName), "%Y%m%d.log", &tmNow);
        return szName;
    }
    bool HasDays() const { return m_bClock || m_bZone; }
    bool Coin() { return m_Rng() % 2 == 0; }

    void MoveClock(std::int64_t nMs) {
        m_nClockMs += nMs;
        m_Service.SetClock(fmt::format("{:+.3f}", static_cast<double>(m_nClockMs) / 1000));
    }
    // In place, so that no other zone shows in between; a new time makes the file be read again.
    void WriteZone(std::int64_t nOffset) {
        const CUniqueFd file(open(m_Service.Path("/zone").c_str(), O_WRONLY | O_CLOEXEC));
        const std::uint32_t dwOffset = htobe32(static_cast<std::uint32_t>(nOffset));
        Must(pwrite(file.Get(), &dwOffset, sizeof(dwOffset), 44) == sizeof(dwOffset), "zone file");
        const timespec times[] = {{++m_nZones, 0}, {m_nZones, 0}};
        futimens(file.Get(), times);
    }
    void MoveZone(std::int64_t nMs) { WriteZone(Local().tm_gmtoff + nMs / 1000); }
    void Move(std::int64_t nMs) { m_bClock ? MoveClock(nMs) : MoveZone(nMs); }

    // The local time was moved: the service notices another day of the month, and only that.
    void NoticeDay() {
        if (Local().tm_mday != m_nNoticed) {
            m_nNoticed = Local().tm_mday;
            m_Model.Switch(Name());
        }
        Agree();
    }
    void NextDay() {
        Move(kDayMs);
        NoticeDay();
    }

    // Everything stored is as it must be, or comes to be.
    void Agree() {
        std::string strDifference;
        WaitUntil([&] { return (strDifference = m_Model.Difference(m_Service)).empty(); });
        Must(strDifference.empty(), strDifference);
    }

    // Sends numbered records.
    std::vector<LogRecord> Burst(std::size_t nRecords) {
        std::vector<LogRecord> records(nRecords);
        for (LogRecord& record : records) {
            record =
                MakeRecord(static_cast<int>(m_Rng() % 3), static_cast<int>(m_Rng() % 4),
                           CNumberedSender::Text(m_nNumber++) + std::string(m_Rng() % 250, '.'));
            m_Client.Send(record);
        }
        return records;
    }
    // The same; when they have come back live, each was handled.
    std::vector<LogRecord> SendThrough(std::size_t nRecords) {
        std::vector<LogRecord> records = Burst(nRecords);
        for (const LogRecord& record : records) {
            const auto live = m_Watcher->ReceiveRecord();
            Must(live && std::memcmp(&*live, &record, sizeof(record)) == 0,
                 "not forwarded: " + RecordText(record));
        }
        return records;
    }
    void Expect(const std::vector<LogRecord>& records) {
        for (const LogRecord& record : records) {
            m_Model.Write(record);
        }
    }
    void Send(std::size_t nRecords) { Expect(SendThrough(nRecords)); }

    CReceiverSession Open() {
        m_Agent.Send(MakeHlogRequest(1, AgentRequest{.wPort = m_Receiver.Port()}));
        auto session = m_Receiver.Accept();
        Must(session.has_value(), "no session");
        session->Handshake();
        return std::move(*session);
    }
    // Starts the service. Where it must refuse today's file, it does, and the file is taken away.
    void Start() {
        m_nNoticed = Local().tm_mday;
        if (!m_Model.Start(Name())) {
            m_Service.Launch();
            Must(m_Service.Wait() == 30, "started on a damaged file");
            Agree();
            fs::remove(m_Service.Path("/log/" + Name()));
            m_Model.log.erase(Name());
            m_Model.Start(Name());
        }
        Must(m_Service.Start() && m_Agent.Accept(), "no start: " + m_Service.Trace());
        m_Agent.Register();
        m_Watcher.emplace(Open());
        SubscriptionTable all;
        all.fill(1);
        m_Watcher->Subscribe(all);
        m_Watcher->Cancel(1);  // its answer says that the table is in use
        m_Watcher->Await(UM_CANCEL_ACK);
        m_nThreads = CountOf(m_Service, "task");
        // the clock's file is open now and then
        m_nDescriptors = std::min(
            {CountOf(m_Service, "fd"), CountOf(m_Service, "fd"), CountOf(m_Service, "fd")});
    }
    void Stop() {
        Must(m_Service.Stop() == 0, "does not stop");
        m_Model.pOpen = nullptr;
        Agree();
    }
    void Kill() {
        m_Service.Signal(SIGKILL);
        Must(m_Service.Wait() == 128 + SIGKILL, "not killed");
    }

    void AwaitIdle() const {
        const std::ptrdiff_t nFiles = m_nDescriptors - (m_Model.pOpen == nullptr ? 1 : 0);
        Must(WaitUntil([&] { return CountOf(m_Service, "task") == m_nThreads; }), "threads left");
        Must(WaitUntil([&] { return CountOf(m_Service, "fd") == nFiles; }), "descriptors left");
    }
    // A receiver gets what is stored, file by file.
    void Fetch() {
        CReceiverSession session = Open();
        StoreModel::Directory files = m_Model.bHistory ? m_Model.history : StoreModel::Directory();
        files.insert(m_Model.log.begin(), m_Model.log.end());  // the history goes first
        files["none.log"] = nullptr;
        for (const auto& [strName, pFile] : files) {
            const bool bFound = pFile != nullptr && !pFile->empty();
            const UploadFileAnswer answer = session.GetFile(strName);
            Must(answer.byResult == (bFound ? kGetHlogFound : kGetHlogNotFound), strName);
            Must(!bFound || session.ReceiveFile(answer.dwSize) == *pFile, strName);
        }
    }
    void Check() {
        Send(1 + m_Rng() % 20);
        Agree();
        Fetch();
        AwaitIdle();  // also before the console: it turns clients away until the last one is gone
        Must(CTelnet(m_Service.ConsolePort()).LogIn().ends_with("Password:"), "no console");
        AwaitIdle();
    }
    // What a person would do then: takes away what is no file, and starts the service anew where it
    // writes to no file, or to one that is not in its place.
    void Heal() {
        std::erase_if(m_Model.history, [this](const auto& entry) {
            return entry.second == nullptr && fs::remove(m_Service.Path("/hislog/" + entry.first));
        });
        if (!m_Model.IsWhole()) {
            Stop();
            Start();
        }
    }

    std::mt19937 m_Rng{Setting("TARVIK_SEED", kSeed)};
    CAgent m_Agent;
    CReceiver m_Receiver{0, 4096};  // takes little at a time
    CService m_Service{TARVIK_LOGD, m_Agent.Port()};
    CMounts m_Mounts;
    CLogClient m_Client{m_Service.RecordPort()};
    std::optional<CReceiverSession> m_Watcher;  // gets every record live
    StoreModel m_Model;
    bool m_bClock = false;        // can be moved
    bool m_bZone = false;         // likewise
    std::int64_t m_nClockMs = 0;  // of the service, ahead of ours
    std::time_t m_nZones = 0;
    int m_nNoticed = 0;  // day of the month
    std::uint32_t m_nNumber = 0;
    std::ptrdiff_t m_nThreads = 0;
    std::ptrdiff_t m_nDescriptors = 0;
};

class Faults : public Adversity {
protected:
    enum class EDamage { Truncated, Garbled, Replaced, Link, Removed };
    struct Fault {
        std::string strName;
        std::function<void()> fnStrike;
    };

    // Damages the day's file.
    void Damage(EDamage eDamage) {
        const std::string strFile = "/log/" + m_Model.strName;
        const fs::path path = m_Service.Path(strFile);
        StoreModel::File& pFile = m_Model.log.at(m_Model.strName);
        if (eDamage == EDamage::Truncated) {
            const std::size_t sizes[] = {0, 1 + m_Rng() % 299, m_Rng() % pFile->size()};
            pFile->resize(sizes[m_Rng() % 3]);
            fs::resize_file(path, pFile->size());
            return;
        }
        if (eDamage != EDamage::Garbled) {  // else it is written into the file that is open
            fs::remove(path);
            pFile = std::make_shared<std::string>();
        }
        if (eDamage == EDamage::Link) {
            pFile = nullptr;
            fs::create_symlink("/nowhere/file", path);
        } else if (eDamage == EDamage::Removed) {
            m_Model.log.erase(m_Model.strName);
        } else {
            *pFile = Bytes(1 + m_Rng() % 1000);
            m_Service.WriteFile(strFile, *pFile);
        }
    }
    void DamageWhileRunning(EDamage eDamage) {
        Damage(eDamage);
        Send(5);
        if (HasDays() && Coin()) {
            NextDay();
        }
    }
    void DamageWhileKilled(EDamage eDamage) {
        Kill();
        m_Model.pOpen = nullptr;
        Damage(eDamage);
        Start();
    }

    void FillDisk() {
        const std::string& strBytes = *m_Model.pOpen;
        const auto nPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        m_Service.WriteFile("/log/filler", std::string(kDiskBytes, 'f'));  // as much as fits
        m_Model.nRoom = (strBytes.size() + nPage - 1) / nPage * nPage;
        Send(20 + m_Rng() % 30);
        Agree();
        if (HasDays() && m_Model.log.size() == 1 && Coin()) {
            NextDay();  // no room for its header
            Send(5);
            Agree();
        }
        fs::remove(m_Service.Path("/log/filler"));
        m_Model.nRoom = StoreModel::kEnough;
    }
    void LoseHistory() {
        fs::rename(m_Service.Path("/hislog"), m_Service.Path("/gone"));
        m_Model.bHistory = false;
        Check();
        if (HasDays()) {
            NextDay();
            Check();
        }
        fs::rename(m_Service.Path("/gone"), m_Service.Path("/hislog"));
        m_Model.bHistory = true;
    }
    void LoseConfiguration() {
        const std::string strPath = m_Service.Path("/etc/tarvik/log/log.conf");
        fs::rename(strPath, strPath + ".gone");
        Check();
        Stop();
        Must(m_Model.Start(Name()), "the day's file is damaged");
        m_Model.pOpen = nullptr;
        m_Service.Launch();
        Must(m_Service.Wait() == 50, "started without configuration");
        Agree();
        fs::rename(strPath + ".gone", strPath);
        Start();
    }
    void StallConsole() {
        CTelnet console(m_Service.ConsolePort(), 4096);
        console.LogIn();
        console.Send("set 0 1\r\n");
        console.ReadUntil("send log. \r\n");
        for (int i = 0; i < 20; ++i) {
            for (int k = 0; k < 50; ++k) {
                m_Client.Send(MakeRecord(0, kRealTimeType, std::string(kRecordTextBytes, 'x')));
            }
            Send(5);
        }
        if (Coin()) {
            Must(console.ReadUntil("]\r\n").ends_with("x]\r\n"), "nothing relayed");
        }
        console.Close();  // with bytes unread, which the service sees as a reset
    }
    void BreakLink() {
        Coin() ? m_Agent.Connection().Reset() : m_Agent.Connection().Close();
        Send(20);
        Agree();
        Must(m_Agent.Accept(), "the service does not connect");
        Send(20);  // while the agent keeps the registration waiting
        m_Agent.Register();
    }
    void StallReceiver() {
        CReceiverSession session = Open();
        Must(session.GetFile("big") == UploadFileAnswer{kStalledBytes, kGetHlogFound}, "no file");
        Must(session.ReceiveFile(1000).size() == 1000, "no bytes");
        Send(20);
        Agree();
        Fetch();
        if (Coin()) {
            session.Connection().Reset();
        } else {
            const std::string strRest = session.ReceiveFile(kStalledBytes - 1000);
            Must(strRest == std::string(kStalledBytes - 1000, 'f'), "other bytes");
        }
    }
    void KillInStream() {
        const std::vector<LogRecord> records = Burst(1 + m_Rng() % 120);
        Kill();
        m_Model.Kill(records, m_Service.ReadFile("/log/" + m_Model.strName));
        Agree();
        Start();
    }
    void Jump(void (Faults::*pfnMove)(std::int64_t)) {
        // months are there to be mistaken for no change
        constexpr int kDays[] = {1, -1, 28, 30, 31, -28, -30, -31, 365, -365};
        (this->*pfnMove)(kDays[m_Rng() % std::size(kDays)] * kDayMs);
        NoticeDay();
    }

    std::vector<Fault> Kinds() {
        std::vector<Fault> kinds = {
            {"history lost", [this] { LoseHistory(); }},
            {"configuration lost", [this] { LoseConfiguration(); }},
            {"console stalled", [this] { StallConsole(); }},
            {"link broken", [this] { BreakLink(); }},
            {"receiver stalled", [this] { StallReceiver(); }},
            {"killed", [this] { KillInStream(); }},
        };
        constexpr const char* kDamages[] = {"truncated", "garbled", "replaced", "a link",
                                            "removed"};
        for (std::size_t i = 0; i < std::size(kDamages); ++i) {
            const auto eDamage = static_cast<EDamage>(i);
            const std::string strName = std::string("file ") + kDamages[i];
            kinds.push_back({strName, [=, this] { DamageWhileRunning(eDamage); }});
            kinds.push_back({"killed, " + strName, [=, this] { DamageWhileKilled(eDamage); }});
        }
        if (m_bDisk) {
            kinds.push_back({"disk full", [this] { FillDisk(); }});
        }
        if (m_bClock) {
            kinds.push_back({"clock", [this] { Jump(&Faults::MoveClock); }});
        }
        if (m_bZone) {
            kinds.push_back({"zone", [this] { Jump(&Faults::MoveZone); }});
        }
        return kinds;
    }
    bool m_bDisk = false;  // a small one of its own
};

TEST_F(Faults, CostNothingButWhatTheyHit) {
    SetUpService("");
    m_bDisk = m_Mounts.SmallDisk(m_Service.Path("/log"), kDiskBytes);
    const std::vector<Fault> kinds = Kinds();
    const auto nUsual =
        static_cast<std::uint32_t>(kinds.size() * (kSanitized || CService::IsEmulated() ? 1 : 2));
    const std::uint32_t nFaults = Setting("TARVIK_FAULTS", nUsual);
    SCOPED_TRACE(fmt::format("TARVIK_SEED={}", Setting("TARVIK_SEED", kSeed)));
    Start();
    std::vector<Fault> next;
    for (std::uint32_t i = 0; i < nFaults; ++i) {
        if (next.empty()) {
            next = kinds;
            std::shuffle(next.begin(), next.end(), m_Rng);
        }
        const std::string strFault =
            fmt::format("fault {} on {}: {}", i, m_Model.strName, next.back().strName);
        SCOPED_TRACE(strFault);
        if (std::getenv("TARVIK_FAULTS") != nullptr) {
            std::cout << strFault << std::endl;
        }
        try {
            next.back().fnStrike();
            Check();
            Heal();
        } catch (const std::exception& error) {
            FAIL() << error.what();
        }
        next.pop_back();
    }
    Stop();
}

class Midnights : public Adversity {
protected:
    // strDate: as in "2026-02-14"; noon.
    void GoTo(const std::string& strDate) {
        std::tm tmNoon{};
        strptime((strDate + " 12").c_str(), "%Y-%m-%d %H", &tmNoon);
        tmNoon.tm_isdst = -1;
        Move(std::int64_t{std::mktime(&tmNoon)} * 1000 - NowMs());
    }
    // When the day ends, in seconds.
    std::time_t EndOfDay() const {
        auto tTime = static_cast<std::time_t>(NowMs() / 1000);
        for (const int nDay = Local().tm_mday; Local(tTime).tm_mday == nDay;) {
            ++tTime;
        }
        return tTime;
    }
    // Goes to right before tTime and sends records until it is over and done() besides.
    std::vector<LogRecord> Pass(std::time_t tTime, const std::function<bool()>& done) {
        Move(std::int64_t{tTime} * 1000 - 100 - NowMs());
        std::vector<LogRecord> records;
        const std::int64_t nEndMs = m_bClock ? std::int64_t{tTime} * 1000 + 50 : 0;
        Must(WaitUntil([&] {
                 records.push_back(SendThrough(1).front());
                 return NowMs() > nEndMs && done();
             }),
             "no change of day");
        return records;
    }
    // The records sent meanwhile are in the two files in order, wherever the change fell.
    void PassMidnight() {
        Send(5);
        const std::string strBefore = m_Service.Path("/hislog/" + m_Model.strName);
        const std::vector<LogRecord> records =
            Pass(EndOfDay(), [&] { return fs::exists(strBefore); });
        const std::uint32_t nBefore = CountIn(strBefore) - m_Model.header.dwCount;
        Must(nBefore <= records.size(), "counted too much");
        const auto change = records.begin() + nBefore;
        Expect({records.begin(), change});
        m_Model.Switch(Name());
        Expect({change, records.end()});
        m_nNoticed = Local().tm_mday;
        Check();
    }
    std::int64_t MemoryKib() const {
        return KernelNumber(fmt::format("/proc/{}/status", m_Service.Pid()), "VmRSS:", 1);
    }
};

TEST_F(Midnights, SplitTheRecordsWithoutLossAndLeaveNothingBehind) {
    SetUpService("DAY3NIGHT,M10.3.0/0,M2.3.0/0");  // 23:00 comes twice on 14 February 2026
    if (!HasDays()) {
        GTEST_SKIP() << "neither clock nor zone can be changed here";
    }
    GoTo("2026-02-14");
    Start();
    if (m_bClock) {
        constexpr std::time_t kHour = 3600;
        Expect(Pass(EndOfDay() - kHour, [] { return true; }));
        Agree();  // 24:00 was 23:00
    }
    std::int64_t nWarmKib = 0;
    for (int nNight = 0; nNight < (m_bClock ? 30 : 6); ++nNight) {
        SCOPED_TRACE(m_Model.strName);
        PassMidnight();
        nWarmKib = nNight == 5 ? MemoryKib() : nWarmKib;
    }
    EXPECT_EQ(m_Model.strName, m_bClock ? "20260316.log" : "20260220.log");
    GoTo("2026-10-17");
    NoticeDay();
    PassMidnight();  // to 01:00
    GoTo("2026-12-30");
    NoticeDay();
    PassMidnight();
    PassMidnight();
    EXPECT_EQ(m_Model.strName, "20270101.log");
    if (m_bClock) {  // a sanitizer keeps what is freed, and an emulator what it likes
        EXPECT_LT(MemoryKib(), nWarmKib + 256);
    }
    Stop();
}

}  // namespace
