#include "bench/ReceiveBuffer.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "bench/Measure.h"
#include "peers/TempDir.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kSetting = "/proc/sys/net/core/rmem_default";
constexpr std::int64_t kOrphanTurnNs = 1'000'000;

sigset_t EndingSignals() {
    sigset_t setSignals;
    sigemptyset(&setSignals);
    for (const int nSignal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        sigaddset(&setSignals, nSignal);
    }
    return setSignals;
}

// Waits for the end of a child; signals that would end this process end the child. The signals are
// blocked.
int AwaitChild(pid_t nChild) {
    const sigset_t setSignals = EndingSignals();
    int nStatus = 0;
    while (waitpid(nChild, &nStatus, WNOHANG) == 0) {
        int nSignal = 0;
        sigwait(&setSignals, &nSignal);
        if (nSignal != SIGCHLD) {
            kill(nChild, nSignal);
        }
    }
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
}

bool IsChild(const fs::path& process) {
    try {
        return ProcNumber(process / "status", "PPid:") == getpid();
    } catch (const std::runtime_error&) {
        return false;  // no process, or gone meanwhile
    }
}

// Ends the processes that were handed to this one when their parent ended, and those that are when
// these end.
void EndOrphans() {
    while (waitpid(-1, nullptr, WNOHANG) >= 0) {
        for (const auto& entry : fs::directory_iterator("/proc")) {
            if (IsChild(entry.path())) {
                kill(std::stoi(entry.path().filename()), SIGKILL);
            }
        }
        SleepNs(kOrphanTurnNs);
    }
}

}  // namespace

std::int64_t ReceiveBuffer() {
    std::int64_t nBytes = 0;
    std::ifstream(kSetting) >> nBytes;
    return nBytes;
}

bool SetReceiveBuffer(std::int64_t nBytes) {
    std::ofstream(kSetting) << nBytes << '\n';
    return ReceiveBuffer() == nBytes;
}

int RunTidily(const std::function<int()>& act) {
    const CTempDir files;
    const std::int64_t nBefore = ReceiveBuffer();
    const sigset_t setSignals = EndingSignals();
    sigset_t setOld;
    sigprocmask(SIG_BLOCK, &setSignals, &setOld);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t nChild = fork();
    if (nChild == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigprocmask(SIG_SETMASK, &setOld, nullptr);
        setenv("TMPDIR", files.Path().c_str(), 1);
        exit(act());
    }
    int nStatus = nChild < 0 ? 1 : AwaitChild(nChild);
    if (ReceiveBuffer() != nBefore && !SetReceiveBuffer(nBefore)) {
        fmt::print(stderr, "{} is not {} any more and cannot be set\n", kSetting, nBefore);
        nStatus = 1;
    }
    EndOrphans();
    return nStatus;
}
