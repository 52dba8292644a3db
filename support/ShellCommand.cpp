#include "support/ShellCommand.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string_view>

#include "support/Socket.h"
#include "support/UniqueFd.h"

namespace {

constexpr int kFirstRest = 1000;     // microseconds: most commands are short
constexpr int kLongestRest = 10000;  // microseconds

// What a shell child does not take over from the thread that starts it: workers block SIGTERM, the
// process ignores SIGPIPE and SIGCHLD.
class CShellSetup {
public:
    CShellSetup() {
        posix_spawnattr_init(&m_attributes);
        posix_spawn_file_actions_init(&m_actions);
        sigset_t setSignals;
        sigemptyset(&setSignals);
        posix_spawnattr_setsigmask(&m_attributes, &setSignals);
        for (const int nSignal : {SIGHUP, SIGPIPE, SIGCHLD, SIGTERM, SIGXFSZ}) {
            sigaddset(&setSignals, nSignal);
        }
        posix_spawnattr_setsigdefault(&m_attributes, &setSignals);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~CShellSetup() {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    CShellSetup(const CShellSetup&) = delete;
    CShellSetup& operator=(const CShellSetup&) = delete;

    // Returns the number of the child that runs strCommand and writes to nOutput, or -1.
    pid_t Start(std::string strCommand, int nOutput) {
        char szName[] = "sh";
        char szOption[] = "-c";
        char* const szArguments[] = {szName, szOption, strCommand.data(), nullptr};
        pid_t nChild = -1;
        const bool bStarted =
            posix_spawn_file_actions_adddup2(&m_actions, nOutput, STDOUT_FILENO) == 0 &&
            posix_spawn(&nChild, "/bin/sh", &m_actions, &m_attributes, szArguments, environ) == 0;
        return bStarted ? nChild : -1;
    }

private:
    posix_spawnattr_t m_attributes;
    posix_spawn_file_actions_t m_actions;
};

bool HasEnded(pid_t nChild) {
    pid_t nResult = -1;
    do {
        nResult = waitpid(nChild, nullptr, WNOHANG);
    } while (nResult < 0 && errno == EINTR);
    return nResult != 0;  // with SIGCHLD ignored a child that ended is not found any more
}

// Takes what nobody reads, also where there is no /dev/null.
CUniqueFd OpenSink() {
    CUniqueFd sink(open("/dev/null", O_WRONLY | O_CLOEXEC));
    if (!sink.IsOpen()) {
        sink.Reset(memfd_create("output", MFD_CLOEXEC));
    }
    return sink;
}

// What comes up to the end of the first line, at most nMost characters.
std::string ReadLine(int nFile, std::size_t nMost) {
    std::string strLine;
    while (strLine.size() < nMost && (strLine.empty() || strLine.back() != '\n')) {
        char cNext = '\0';
        const ssize_t nRead = read(nFile, &cNext, 1);
        if (nRead == 1) {
            strLine += cNext;
        } else if (nRead == 0 || errno != EINTR) {
            break;
        }
    }
    return strLine;
}

}  // namespace

bool ReadShellLine(const std::string& strCommand, std::size_t nMost, std::string& strLine) {
    int nEnds[2];
    if (pipe2(nEnds, O_CLOEXEC) != 0) {
        return false;
    }
    CUniqueFd readEnd(nEnds[0]);
    CUniqueFd writeEnd(nEnds[1]);
    const pid_t nChild = CShellSetup().Start(strCommand, writeEnd.Get());
    writeEnd.Reset();  // the command alone has it now
    if (nChild < 0) {
        return false;
    }
    strLine = ReadLine(readEnd.Get(), nMost);
    readEnd.Reset();  // a command that writes on ends by it
    while (waitpid(nChild, nullptr, 0) < 0 && errno == EINTR) {
    }
    return true;
}

int RunShellCommand(const std::string& strCommand, const std::atomic<std::int32_t>* pGiveUp) {
    const CUniqueFd sink = OpenSink();
    const pid_t nChild = CShellSetup().Start(strCommand, sink.Get());
    if (nChild < 0) {
        return 5;
    }
    // waitpid could wait by itself, but not for the flag.
    int nRest = kFirstRest;
    while (!HasEnded(nChild) && (pGiveUp == nullptr || pGiveUp->load() == 0)) {
        Rest(nRest);
        nRest = std::min(2 * nRest, kLongestRest);
    }
    return 0;
}

std::string QuoteForShell(const std::string& strPath) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    if (!strPath.empty() && strPath.find_first_not_of(kPlain) == std::string::npos) {
        return strPath;
    }
    std::string strQuoted = "'";
    for (const char c : strPath) {
        if (c == '\'') {
            strQuoted += "'\\''";
        } else {
            strQuoted += c;
        }
    }
    return strQuoted + "'";
}
