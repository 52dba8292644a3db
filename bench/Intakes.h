// What the intake benchmark loads: the service's intake thread, and beside it a bare loop that does
// nothing but the system calls that a stored record needs.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "peers/Service.h"

// A thread that takes records from a UDP port and stores them in a day's file.
struct Intake {
    std::uint16_t wPort = 0;
    pid_t nPid = 0;
    pid_t nTid = 0;
    std::string strFile;  // path of the day's file

    // Records stored so far, as the file's header counts them.
    std::int64_t Stored() const;

    // Waits until nExpected records are stored or nothing moves any more; returns their number.
    std::int64_t WaitStored(std::int64_t nExpected) const;
};

// The intake of a service that runs. Throws std::runtime_error when it has none.
Intake IntakeOf(const CService& service);

// A process with the bare loop of bench/bare-intake.cpp.
class CBareIntake {
public:
    // Whether the process has a second thread, which only sleeps: the kernel and the C library do
    // more for each call of a process with threads.
    enum class Threads { kOne, kOneSleepsToo };

    // strFile: where to store, a new file. Throws std::system_error when it cannot be started.
    explicit CBareIntake(const std::string& strFile, Threads threads = Threads::kOne);
    ~CBareIntake();  // ends the process
    CBareIntake(const CBareIntake&) = delete;
    CBareIntake& operator=(const CBareIntake&) = delete;

    const Intake& Get() const { return m_Intake; }

private:
    Intake m_Intake;
};
