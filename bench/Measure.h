// What the benchmarks measure with: clock, statistics, and what the kernel books for a thread or a
// process of the service.
//
// Threads: any; nothing is shared.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// Nanoseconds of the monotonic clock.
std::int64_t NowNs();

void SleepNs(std::int64_t nNs);

double Ms(std::int64_t nNs);

// Waits until count() is nExpected or it stands still for 150 ms; returns what it is then.
std::int64_t WaitCount(const std::function<std::int64_t()>& count, std::int64_t nExpected);

// The value below which dShare (0 to 1) of the values lie; 0 when there are none.
double Percentile(std::vector<double> values, double dShare);

double Median(const std::vector<double>& values);
double Maximum(const std::vector<double>& values);

struct ThreadUse {
    pid_t nTid = 0;
    std::string strName;
    std::int64_t nCpuNs = 0;    // user and system time; exact while the thread sleeps
    std::int64_t nWakeUps = 0;  // how often it had gone to sleep by itself
};

// What thread nTid of process nPid has used so far. Throws std::runtime_error when it is gone.
ThreadUse UseOfThread(pid_t nPid, pid_t nTid);

// The same of every thread of a process, the first thread first.
std::vector<ThreadUse> UseOfProcess(pid_t nPid);

// User and system time of all threads of a process, the ended ones included, in nanoseconds. Throws
// std::runtime_error when it is gone.
std::int64_t CpuNsOfProcess(pid_t nPid);

// The number behind szKey, such as "VmRSS:", in a file of "Key: number" lines below /proc.
std::int64_t ProcNumber(const std::string& strPath, const std::string& strKey);

// Binds a thread to some of the processors that this process may use: the sender of load and what
// is loaded then do not push each other around. nTid 0: the caller. Nothing is done when there is
// only one processor.
enum class Processor { kFirst, kLast, kAllButFirst, kAny };
void PinThread(pid_t nTid, Processor processor);

// The same for all threads that the process has.
void PinProcess(pid_t nPid, Processor processor);
