// The real service while, in a random order, its disk fills, its files are damaged or vanish,
// kill -9 strikes and the date jumps; and a month of midnights. After each, all that is stored is
// compared with a model, and everything is used.
#include <endian.h>
#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

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

namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t kSeed = 20261123;
constexpr std::size_t kStalledBytes = std::size_t{1024} * 1024;
constexpr std::int64_t kDayMs = 86'400'000;
constexpr std::int64_t kBeginMs = 1'829'995'200'000;  // noon of 28 December 2027

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

// Mounts szSource over strOver for this process and its children. False when that is not allowed
// here.
bool MountOver(const std::string& strOver, const char* szSource, const char* szType,
               unsigned long nFlags, const char* szOptions) {
    static const bool bOwn =
        unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return bOwn && mount(szSource, strOver.c_str(), szType, nFlags, szOptions) == 0;
}

// A service with all its peers, and the model of what it stores. What does not hold is thrown.
class Adversity : public testing::Test {
protected:
    // The date is moved by the service's clock where that can be replaced, else by a zone file of
    // its own where that can be put in place, else not at all.
    void SetUp() override {
        m_nAheadMs = UseZoneOfNoon() * 1000;
        m_bClock = m_Service.FakeClock();
        if (!m_bClock) {
            std::string strZone(54, '\0');
            strZone.replace(0, 4, "TZif");
            strZone[39] = 1;  // one kind of local time, no change of it
            strZone[43] = 4;  // bytes of its name
            strZone.replace(50, 3, "DAY");
            m_Service.WriteFile("/zone", strZone);
        }
        m_bDays = m_bClock || MountOver("/etc/localtime", m_Service.Path("/zone").c_str(), nullptr,
                                        MS_BIND, nullptr);
        if (m_bDays) {
            Move(kBeginMs - NowMs());
            m_Service.SetEnvironment("TZ", m_bClock ? "UTC" : "");
        }
        m_bDisk = MountOver(m_Service.Path("/log"), "small", "tmpfs", 0, "size=16m");
        m_Service.WriteFile("/etc/boa/boa.conf", "Port 80\n");
        m_Service.WriteFile("/hislog/big", std::string(kStalledBytes, 'f'));
    }
    ~Adversity() override {
        if (m_bDays && !m_bClock) {
            umount2("/etc/localtime", MNT_DETACH);
        }
        if (m_bDisk) {
            umount2(m_Service.Path("/log").c_str(), MNT_DETACH);
        }
    }

    // The service's local time as if it were UTC.
    std::int64_t NowMs() const {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
                   .count() +
               m_nAheadMs;
    }
    std::string Name() const {
        return fmt::format("{:%Y%m%d}.log", fmt::gmtime(static_cast<std::time_t>(NowMs() / 1000)));
    }
    bool Coin() { return m_Rng() % 2 == 0; }

    void Move(std::int64_t nMs) {
        m_nAheadMs += nMs;
        if (m_bClock) {
            m_Service.SetClock(fmt::format("{:+.3f}", static_cast<double>(m_nAheadMs) / 1000));
            return;
        }
        m_nAheadMs -= m_nAheadMs % 1000;
        // In place, so that no other zone shows in between; a new time makes the file be read
        // again.
        const CUniqueFd file(open(m_Service.Path("/zone").c_str(), O_WRONLY | O_CLOEXEC));
        const std::uint32_t dwAhead = htobe32(static_cast<std::uint32_t>(m_nAheadMs / 1000));
        Must(pwrite(file.Get(), &dwAhead, sizeof(dwAhead), 44) == sizeof(dwAhead), "zone file");
        const timespec times[] = {{++m_nZones, 0}, {m_nZones, 0}};
        futimens(file.Get(), times);
    }
    // The service notices another day of the month, and only that.
    void Jump(std::int64_t nDays) {
        if (m_bDays) {
            const std::string strBefore = Name();
            Move(nDays * kDayMs);
            if (Name().substr(6) != strBefore.substr(6)) {
                m_Model.Switch(Name());
            }
            Agree();
        }
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
                 "not forwarded: " + std::string(RecordText(record)));
        }
        return records;
    }
    void Send(std::size_t nRecords) {
        for (const LogRecord& record : SendThrough(nRecords)) {
            m_Model.Write(record);
        }
    }

    CReceiverSession Open() {
        CReceiverSession session = OpenSession(m_Agent, m_Receiver);
        session.Handshake();
        return session;
    }
    // Starts the service. Where it must refuse today's file, it does, and the file is taken away.
    void Start() {
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
        SubscribeToAll(*m_Watcher);
        m_nThreads = CountOf(m_Service, "task");
        m_nDescriptors = SteadyDescriptors(m_Service);
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

    std::mt19937 m_Rng{Setting("TARVIK_SEED", kSeed)};
    CAgent m_Agent;
    CReceiver m_Receiver{0, 4096};  // takes little at a time
    CService m_Service{TARVIK_LOGD, m_Agent.Port()};
    CLogClient m_Client{m_Service.RecordPort()};
    std::optional<CReceiverSession> m_Watcher;  // gets every record live
    StoreModel m_Model;
    bool m_bDays = false;   // the date can be moved
    bool m_bClock = false;  // by the clock
    bool m_bDisk = false;   // a small one holds the directory of the day's file
    std::int64_t m_nAheadMs = 0;
    std::time_t m_nZones = 0;
    std::uint32_t m_nNumber = 0;
    std::ptrdiff_t m_nThreads = 0;
    std::ptrdiff_t m_nDescriptors = 0;
};

class Faults : public Adversity {
protected:
    // Damages the day's file.
    void Damage(const std::string& strHow) {
        const fs::path path = m_Service.Path("/log/" + m_Model.strName);
        StoreModel::File& pFile = m_Model.log.at(m_Model.strName);
        if (strHow == "truncated") {
            const std::size_t sizes[] = {0, 1 + m_Rng() % 299, m_Rng() % pFile->size()};
            pFile->resize(sizes[m_Rng() % 3]);
            fs::resize_file(path, pFile->size());
            return;
        }
        if (strHow != "garbled") {  // else it is written into the file that is open
            fs::remove(path);
            pFile = std::make_shared<std::string>();
        }
        if (strHow == "a link") {
            pFile = nullptr;
            fs::create_symlink("/nowhere/file", path);
        } else if (strHow == "removed") {
            m_Model.log.erase(m_Model.strName);
        } else {
            pFile->resize(1 + m_Rng() % 1000);
            std::generate(pFile->begin(), pFile->end(),
                          [this] { return static_cast<char>(m_Rng()); });
            m_Service.WriteFile("/log/" + m_Model.strName, *pFile);
        }
    }
    void DamageFile(const std::string& strHow, bool bKilled) {
        if (bKilled) {
            Kill();
            m_Model.pOpen = nullptr;
        }
        Damage(strHow);
        if (bKilled) {
            Start();
        } else {
            Send(5);
            Jump(Coin() ? 1 : 0);
        }
    }
    void FillDisk() {
        const auto nPage = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
        m_Service.WriteFile("/log/filler", std::string(16 << 20, 'f'));  // as much as fits
        m_Model.nRoom = (m_Model.pOpen->size() + nPage - 1) / nPage * nPage;
        Send(20 + m_Rng() % 30);
        Agree();
        if (m_Model.log.size() == 1 && Coin()) {
            Jump(1);  // no room for its header
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
        Jump(1);
        Check();
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
            Must(
                session.ReceiveFile(kStalledBytes - 1000) == std::string(kStalledBytes - 1000, 'f'),
                "other bytes");
        }
    }
    void BreakLink() {
        Coin() ? m_Agent.Connection().Reset() : m_Agent.Connection().Close();
        Send(20);
        Agree();
        Must(m_Agent.Accept(), "the service does not connect");
        Send(20);  // while the agent keeps the registration waiting
        m_Agent.Register();
    }
    void KillInStream() {
        const std::vector<LogRecord> records = Burst(1 + m_Rng() % 120);
        Kill();
        m_Model.Kill(records, m_Service.ReadFile("/log/" + m_Model.strName));
        Agree();
        Start();
    }
    void MoveDate() {
        // months are there to be mistaken for no change
        constexpr int kDays[] = {1, -1, 28, 30, 31, -28, -30, -31, 365, -365};
        Jump(kDays[m_Rng() % std::size(kDays)]);
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

    std::map<std::string, std::function<void()>> Kinds() {
        std::map<std::string, std::function<void()>> kinds = {
            {"history lost", [this] { LoseHistory(); }},
            {"configuration lost", [this] { LoseConfiguration(); }},
            {"console stalled", [this] { StallConsole(); }},
            {"receiver stalled", [this] { StallReceiver(); }},
            {"link broken", [this] { BreakLink(); }},
            {"killed", [this] { KillInStream(); }},
            {"date", [this] { MoveDate(); }},
        };
        for (const char* szHow : {"truncated", "garbled", "replaced", "a link", "removed"}) {
            kinds[std::string("file ") + szHow] = [=, this] { DamageFile(szHow, false); };
            kinds[std::string("killed, file ") + szHow] = [=, this] { DamageFile(szHow, true); };
        }
        if (m_bDisk) {
            kinds["disk full"] = [this] { FillDisk(); };
        }
        return kinds;
    }
};

TEST_F(Faults, CostNothingButWhatTheyHit) {
    const auto kinds = Kinds();
    std::vector<std::string> names;  // in the order in which they strike, again and again
    names.reserve(kinds.size());
    for (const auto& [strName, fnStrike] : kinds) {
        names.push_back(strName);
    }
    const auto nUsual =
        static_cast<std::uint32_t>(kinds.size() * (kSanitized || CService::IsEmulated() ? 1 : 3));
    std::cout << "TARVIK_SEED=" << Setting("TARVIK_SEED", kSeed) << "\n";
    Start();
    for (std::uint32_t i = 0; i < Setting("TARVIK_FAULTS", nUsual); ++i) {
        if (i % names.size() == 0) {
            std::shuffle(names.begin(), names.end(), m_Rng);
        }
        const std::string& strFault = names[i % names.size()];
        std::cout << "fault " << i << " on " << m_Model.strName << ": " << strFault << std::endl;
        kinds.at(strFault)();
        Check();
        Heal();
    }
    Stop();
}

class Midnights : public Adversity {
protected:
    // The records sent meanwhile are in the two files in order, wherever the change falls.
    void PassMidnight() {
        Send(5);
        const std::string strBefore = m_Service.Path("/log/" + m_Model.strName);
        const std::string strMoved = m_Service.Path("/hislog/" + m_Model.strName);
        Move(kDayMs - NowMs() % kDayMs - 100);
        std::vector<LogRecord> records;
        Must(WaitUntil([&] {
                 records.push_back(SendThrough(1).front());
                 return !fs::exists(strBefore);  // goes when all of it was copied
             }),
             "no change of day");
        const std::uint32_t nBefore = CountIn(strMoved) - m_Model.header.dwCount;
        Must(nBefore <= records.size(), "counted too much");
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (i == nBefore) {
                m_Model.Switch(Name());
            }
            m_Model.Write(records[i]);
        }
        if (nBefore == records.size()) {
            m_Model.Switch(Name());
        }
        Check();
    }
};

TEST_F(Midnights, SplitTheRecordsWithoutLossAndLeaveNothingBehind) {
    if (!m_bDays) {
        GTEST_SKIP() << "neither clock nor zone can be changed here";
    }
    Start();
    std::int64_t nWarmKib = 0;
    for (int nNight = 0; nNight < (m_bClock ? 30 : 6); ++nNight) {
        PassMidnight();
        nWarmKib = nNight == 5 ? MemoryKib(m_Service) : nWarmKib;
    }
    Jump(31);  // from January to the same day of February, which the service does not notice
    Check();
    Check();  // by now it has looked
    PassMidnight();
    EXPECT_EQ(m_Model.strName, m_bClock ? "20280228.log" : "20280204.log");
    EXPECT_TRUE(
        fs::exists(m_Service.Path(m_bClock ? "/hislog/20280127.log" : "/hislog/20280103.log")));
    if (m_bClock) {  // a sanitizer keeps what is freed, and an emulator what it likes
        EXPECT_LT(MemoryKib(m_Service), nWarmKib + 256);
    }
    Stop();
}

}  // namespace
