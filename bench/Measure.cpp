#include "bench/Measure.h"

#include <fmt/format.h>
#include <sched.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t kStandstillNs = 150'000'000;

std::vector<pid_t> ThreadsOf(pid_t nPid) {
    std::vector<pid_t> tids;
    for (const auto& entry : fs::directory_iterator(fmt::format("/proc/{}/task", nPid))) {
        tids.push_back(std::stoi(entry.path().filename()));
    }
    std::sort(tids.begin(), tids.end());
    return tids;
}

}  // namespace

std::int64_t NowNs() {
    timespec tsNow{};
    clock_gettime(CLOCK_MONOTONIC, &tsNow);
    return std::int64_t{tsNow.tv_sec} * 1'000'000'000 + tsNow.tv_nsec;
}

void SleepNs(std::int64_t nNs) {
    timespec tsLeft{};
    tsLeft.tv_sec = static_cast<time_t>(nNs / 1'000'000'000);
    tsLeft.tv_nsec = static_cast<decltype(tsLeft.tv_nsec)>(nNs % 1'000'000'000);
    while (nanosleep(&tsLeft, &tsLeft) != 0) {
    }
}

double Ms(std::int64_t nNs) {
    return static_cast<double>(nNs) * 1e-6;
}

std::int64_t WaitCount(const std::function<std::int64_t()>& count, std::int64_t nExpected) {
    std::int64_t nCount = count();
    std::int64_t nMoved = NowNs();
    while (nCount < nExpected && NowNs() - nMoved < kStandstillNs) {
        SleepNs(2'000'000);
        const std::int64_t nBefore = nCount;
        nCount = count();
        nMoved = nCount != nBefore ? NowNs() : nMoved;
    }
    return nCount;
}

double Percentile(std::vector<double> values, double dShare) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const double dIndex = std::ceil(dShare * static_cast<double>(values.size())) - 1;
    return values[static_cast<std::size_t>(std::max(dIndex, 0.0))];
}

double Median(const std::vector<double>& values) {
    return Percentile(values, 0.5);
}

double Maximum(const std::vector<double>& values) {
    return Percentile(values, 1);
}

std::int64_t ProcNumber(const std::string& strPath, const std::string& strKey) {
    std::ifstream file(strPath);
    for (std::string strLine; std::getline(file, strLine);) {
        const std::size_t nDigit = strLine.find_first_of("0123456789", strKey.size());
        std::int64_t nNumber = 0;
        if (strLine.starts_with(strKey) && nDigit != std::string::npos &&
            std::from_chars(strLine.data() + nDigit, strLine.data() + strLine.size(), nNumber).ec ==
                std::errc()) {
            return nNumber;
        }
    }
    throw std::runtime_error(fmt::format("{}: no {}", strPath, strKey));
}

ThreadUse UseOfThread(pid_t nPid, pid_t nTid) {
    const std::string strTask = fmt::format("/proc/{}/task/{}/", nPid, nTid);
    ThreadUse use;
    use.nTid = nTid;
    std::getline(std::ifstream(strTask + "comm"), use.strName);
    if (!(std::ifstream(strTask + "schedstat") >> use.nCpuNs)) {
        throw std::runtime_error(fmt::format("{}schedstat: cannot be read", strTask));
    }
    use.nWakeUps = ProcNumber(strTask + "status", "voluntary_ctxt_switches:");
    return use;
}

std::vector<ThreadUse> UseOfProcess(pid_t nPid) {
    std::vector<ThreadUse> uses;
    for (const pid_t nTid : ThreadsOf(nPid)) {
        uses.push_back(UseOfThread(nPid, nTid));
    }
    return uses;
}

std::int64_t CpuNsOfProcess(pid_t nPid) {
    clockid_t nClock = 0;
    timespec tsUsed{};
    if (clock_getcpuclockid(nPid, &nClock) != 0 || clock_gettime(nClock, &tsUsed) != 0) {
        throw std::runtime_error(fmt::format("process {} is gone", nPid));
    }
    return std::int64_t{tsUsed.tv_sec} * 1'000'000'000 + tsUsed.tv_nsec;
}

void PinThread(pid_t nTid, Processor processor) {
    // What the process may use is asked once: later answers would be the caller's own pinning.
    static const std::vector<int> processors = [] {
        cpu_set_t setAllowed;
        CPU_ZERO(&setAllowed);
        sched_getaffinity(0, sizeof(setAllowed), &setAllowed);
        std::vector<int> allowed;
        for (int nCpu = 0; nCpu < CPU_SETSIZE; ++nCpu) {
            if (CPU_ISSET(nCpu, &setAllowed)) {
                allowed.push_back(nCpu);
            }
        }
        return allowed;
    }();
    if (processors.size() < 2) {
        return;
    }
    cpu_set_t setWanted;
    CPU_ZERO(&setWanted);
    for (const int nCpu : processors) {
        const bool bFirst = nCpu == processors.front();
        if (processor == Processor::kAny ||
            (processor == Processor::kLast ? nCpu == processors.back()
                                           : bFirst == (processor == Processor::kFirst))) {
            CPU_SET(nCpu, &setWanted);
        }
    }
    sched_setaffinity(nTid, sizeof(setWanted), &setWanted);  // refused: the numbers are noisier
}

void PinProcess(pid_t nPid, Processor processor) {
    for (const pid_t nTid : ThreadsOf(nPid)) {
        PinThread(nTid, processor);
    }
}
