// tarvik-log show: a full day beside cat of the same bytes, the memory that filtering takes, and
// how long a record takes from its sender to the line of a follower.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/Benches.h"
#include "bench/Measure.h"
#include "logstore/LogRecord.h"
#include "peers/LogClient.h"
#include "peers/Service.h"
#include "support/UniqueFd.h"

namespace {

namespace fs = std::filesystem;

constexpr double kWantedShowMs = 50;
constexpr double kWantedFollowMs = 200;
constexpr std::size_t kManyBytes = 500'000'000;
constexpr int kFollowRecords = 100;
constexpr std::int64_t kRestNs = 20'000'000;  // between followed records: the follower sleeps again
constexpr int kLineLimitMs = 5000;

struct Finished {
    double dMs = 0;
    std::int64_t nMaxRssKb = 0;
};

using Arguments = std::vector<std::string>;

// Starts a program with its standard output at nOutput.
pid_t StartProgram(const Arguments& arguments, int nOutput) {
    const pid_t nPid = fork();
    if (nPid == 0) {
        std::vector<char*> pointers;
        for (const std::string& strArgument : arguments) {
            pointers.push_back(const_cast<char*>(strArgument.c_str()));
        }
        pointers.push_back(nullptr);
        dup2(nOutput, STDOUT_FILENO);
        execvp(pointers[0], pointers.data());
        _exit(127);
    }
    return nPid;
}

Finished RunProgram(const Arguments& arguments) {
    const CUniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const std::int64_t nBegin = NowNs();
    const pid_t nPid = StartProgram(arguments, null.Get());
    int nStatus = 0;
    rusage usage{};
    wait4(nPid, &nStatus, 0, &usage);
    const std::int64_t nEnd = NowNs();
    if (!WIFEXITED(nStatus) || WEXITSTATUS(nStatus) != 0) {
        throw std::runtime_error(fmt::format("{}: failed", arguments[0]));
    }
    return {static_cast<double>(nEnd - nBegin) * 1e-6, usage.ru_maxrss};
}

// A full day, as of a service that logs sentences.
void WriteFullDay(const std::string& strPath, int nSalt) {
    LogFileHeader header{};
    header.dwMagic = LOG_RECORD_MAGIC;
    header.dwCount = kLogFileSlots;
    std::vector<LogRecord> records;
    records.reserve(kLogFileSlots);
    for (std::uint32_t i = 0; i < kLogFileSlots; ++i) {
        records.push_back(MakeRecord(static_cast<std::int32_t>(i % 3), static_cast<int>(i % 4),
                                     fmt::format("record {} of day {}: the link to eth{} is slow, "
                                                 "{} ms over the last {} packets",
                                                 i, nSalt, i % 5, i % 977, i % 613)));
    }
    std::ofstream file(strPath, std::ios::binary);
    file.write(reinterpret_cast<const char*>(&header), sizeof(header));
    file.write(reinterpret_cast<const char*>(records.data()),
               static_cast<std::streamsize>(records.size() * sizeof(LogRecord)));
    if (!file.flush()) {
        throw std::runtime_error(fmt::format("{}: cannot be written", strPath));
    }
}

// Shows lines of a follower one by one.
class CFollower {
public:
    CFollower(const std::string& strProgram, const std::string& strRoot) {
        std::array<int, 2> nPipe{};
        if (pipe2(nPipe.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("no pipe");
        }
        m_Lines.Reset(nPipe[0]);
        const CUniqueFd output(nPipe[1]);
        m_nPid =
            StartProgram({"env", "TARVIK_ROOT=" + strRoot, strProgram, "show", "-f"}, output.Get());
    }
    ~CFollower() {
        kill(m_nPid, SIGKILL);
        CService::WaitFor(m_nPid);
    }
    CFollower(const CFollower&) = delete;
    CFollower& operator=(const CFollower&) = delete;

    // Waits for more output that ends with a line; false: none came.
    bool NextLine() {
        pollfd wait{m_Lines.Get(), POLLIN, 0};
        std::array<char, 4096> bytes;
        while (poll(&wait, 1, kLineLimitMs) == 1) {
            const ssize_t nBytes = read(m_Lines.Get(), bytes.data(), bytes.size());
            if (nBytes <= 0) {
                return false;
            }
            if (bytes[static_cast<std::size_t>(nBytes) - 1] == '\n') {
                return true;
            }
        }
        return false;
    }

private:
    CUniqueFd m_Lines;
    pid_t m_nPid = 0;
};

class CShowBench {
public:
    CShowBench(const BenchOptions& options, const CService& service)
        : m_Options(options),
          m_Service(service),
          m_strProgram(fs::path(options.strService).parent_path() / "tarvik-log") {}

    void Measure(CReport& report) const {
        FullDay(report);
        Filter(report);
        Follow(report);
    }

private:
    void FullDay(CReport& report) const {
        const std::string strDay = m_Service.Path("/20261122.log");
        WriteFullDay(strDay, 0);
        const std::vector<Arguments> ways = {{m_strProgram, "show", strDay},
                                             {m_strProgram, "show", "-o", "json", strDay},
                                             {"cat", strDay}};
        const auto times = InTurns("a full day", m_Options.nRounds, ways.size(),
                                   [&](std::size_t i) { return RunProgram(ways[i]).dMs; });
        report.Add("show: a full day, ms", {{kService, times[0]}, {"cat", times[2]}},
                   {Relation::kBelow, kWantedShowMs, ""});
        report.Add("the same with -o json, ms", {{kService, times[1]}});
    }

    // One file and many, filtered in each way that could tempt a program to hold them.
    void Filter(CReport& report) const {
        constexpr std::size_t kDayBytes = std::size_t{kLogFileUnits} * kRecordBytes;
        Arguments files;
        for (std::size_t i = 0; i * kDayBytes < kManyBytes; ++i) {
            files.push_back(m_Service.Path(fmt::format("/many-{}.log", i)));
            WriteFullDay(files.back(), static_cast<int>(i));
        }
        const std::vector<std::pair<const char*, Arguments>> ways = {
            {"--grep", {"--grep", "eth[34] is slow, 97[0-9] ms"}},
            {"-n", {"-n", "1000000000"}},
            {"--reverse", {"--reverse", "--type", "error"}}};
        for (const auto& [szName, options] : ways) {
            Say(fmt::format("filter: {}", szName));
            Arguments many = {m_strProgram, "show"};
            many.insert(many.end(), options.begin(), options.end());
            many.insert(many.end(), files.begin(), files.end());
            const Finished finished = RunProgram(many);
            report.Add(fmt::format("show {}: {} MB of files, ms", szName, kManyBytes / 1000000),
                       {{kService, {finished.dMs}}});
            report.Add("resident memory then, KiB",
                       {{kService, {static_cast<double>(finished.nMaxRssKb)}}});
        }
    }

    void Follow(CReport& report) const {
        Say("follow");
        CLogClient client(m_Service.RecordPort());
        client.Send(MakeRecord(0, 0, "the first line"));
        CFollower follower(m_strProgram, m_Service.Root());
        if (!follower.NextLine()) {
            throw std::runtime_error("the follower shows nothing");
        }
        std::vector<double> latencies;
        for (int i = 0; i < kFollowRecords; ++i) {
            SleepNs(kRestNs);
            const std::int64_t nSent = NowNs();
            client.Send(MakeRecord(0, 0, fmt::format("record {}", i)));
            if (!follower.NextLine()) {
                throw std::runtime_error("a record was not shown");
            }
            latencies.push_back(Ms(NowNs() - nSent));
        }
        report.Add("show -f: record to line, longest, ms", {{kService, {Maximum(latencies)}}},
                   {Relation::kBelow, kWantedFollowMs, ""});
    }

    const BenchOptions& m_Options;
    const CService& m_Service;
    std::string m_strProgram;
};

}  // namespace

void MeasureShow(const BenchOptions& options, CReport& report) {
    CService service(options.strService);
    StartService(service);
    CShowBench(options, service).Measure(report);
}
