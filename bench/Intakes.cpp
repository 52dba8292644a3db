#include "bench/Intakes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "bench/Bench.h"
#include "bench/Measure.h"
#include "logstore/LogRecord.h"
#include "support/UniqueFd.h"

namespace {

int Checked(int nResult, const char* szWhat) {
    if (nResult < 0) {
        throw std::system_error(errno, std::generic_category(), szWhat);
    }
    return nResult;
}

CUniqueFd BindUdp(std::uint16_t wPort) {
    CUniqueFd udp(Checked(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "bare loop: socket"));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(wPort);
    Checked(bind(udp.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "bare loop: bind");
    return udp;
}

// Puts the bare loop in the place of this process, a child just forked.
[[noreturn]] void BecomeBareLoop(int nSocket, const int (&nPipe)[2], int nFile, bool bSleeper) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();  // like the detached service: the kernel shares out processor time by session
    const auto Kept = [](int nDescriptor) {
        fcntl(nDescriptor, F_SETFD, 0);
        return std::to_string(nDescriptor);
    };
    Kept(nPipe[1]);  // nobody writes, but a pipe without a writer has something to read: its end
    const std::string strProgram = NextToThisProgram("tarvik-bare-intake");
    execl(strProgram.c_str(), strProgram.c_str(), Kept(nSocket).c_str(), Kept(nPipe[0]).c_str(),
          Kept(nFile).c_str(), bSleeper ? "sleeper" : nullptr, nullptr);
    _exit(1);
}

}  // namespace

std::int64_t Intake::Stored() const {
    const CUniqueFd file(open(strFile.c_str(), O_RDONLY | O_CLOEXEC));
    LogFileHeader header;
    if (pread(file.Get(), &header, sizeof(header), 0) != sizeof(header)) {
        throw std::runtime_error(fmt::format("{}: no header", strFile));
    }
    // The counter passes over the multiples of kLogFileUnits.
    return header.dwCount - header.dwCount / kLogFileUnits;
}

std::int64_t Intake::WaitStored(std::int64_t nExpected) const {
    return WaitCount([this] { return Stored(); }, nExpected);
}

Intake IntakeOf(const CService& service) {
    const auto files = service.List("/log");
    // The port is open before its thread runs.
    pid_t nTid = 0;
    WaitUntil([&] { return (nTid = service.Thread("logd.intake")) != 0; });
    if (files.size() != 1 || nTid == 0) {
        throw std::runtime_error("the service has no intake thread or no day's file");
    }
    return {service.RecordPort(), service.Pid(), nTid, service.Path("/log/" + files.front())};
}

CBareIntake::CBareIntake(const std::string& strFile, Threads threads) {
    m_Intake.strFile = strFile;
    m_Intake.wPort = FreePort(SOCK_DGRAM);
    const CUniqueFd udp = BindUdp(m_Intake.wPort);
    const CUniqueFd file(Checked(
        open(strFile.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666), "bare loop: file"));
    LogFileHeader header{};
    header.dwMagic = LOG_RECORD_MAGIC;
    if (write(file.Get(), &header, sizeof(header)) != sizeof(header)) {
        throw std::runtime_error(fmt::format("{}: cannot be written", strFile));
    }
    int nEnds[2];
    Checked(pipe2(nEnds, O_CLOEXEC), "bare loop: pipe");
    const CUniqueFd readEnd(nEnds[0]);
    const CUniqueFd writeEnd(nEnds[1]);
    m_Intake.nPid = m_Intake.nTid = Checked(fork(), "bare loop: fork");
    if (m_Intake.nPid == 0) {
        BecomeBareLoop(udp.Get(), nEnds, file.Get(), threads == Threads::kOneSleepsToo);
    }
}

CBareIntake::~CBareIntake() {
    kill(m_Intake.nPid, SIGKILL);
    waitpid(m_Intake.nPid, nullptr, 0);
}
