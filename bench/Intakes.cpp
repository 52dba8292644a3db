#include "bench/Intakes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

#include "bench/Measure.h"
#include "core/UniqueFd.h"
#include "logstore/LogRecord.h"

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

// Stores one record of nSocket; false when the loop cannot go on.
bool StoreOne(int nSocket, int nFile, LogFileHeader& header) {
    LogRecord record;
    sockaddr_in sender;
    socklen_t nSenderLen = sizeof(sender);
    if (recvfrom(nSocket, &record, sizeof(record), 0, reinterpret_cast<sockaddr*>(&sender),
                 &nSenderLen) < 0) {
        return false;
    }
    if (++header.dwCount % kLogFileUnits == 0) {
        ++header.dwCount;
    }
    const off_t nSlot = header.dwCount % kLogFileUnits;
    lseek(nFile, nSlot * static_cast<off_t>(kRecordBytes), SEEK_SET);
    const bool bStored = write(nFile, &record, sizeof(record)) == sizeof(record);
    lseek(nFile, 0, SEEK_SET);
    return bStored && write(nFile, &header, sizeof(header)) == sizeof(header);
}

void StartSleeper() {
    const auto sleep = [](void*) -> void* {
        for (;;) {
            pause();
        }
    };
    pthread_t thread;
    if (pthread_create(&thread, nullptr, sleep, nullptr) != 0) {
        _exit(1);
    }
}

[[noreturn]] void RunBareLoop(int nSocket, int nPipe, int nFile, LogFileHeader header) {
    for (;;) {
        fd_set setReady;
        FD_ZERO(&setReady);
        FD_SET(nSocket, &setReady);
        FD_SET(nPipe, &setReady);
        timeval tvWait{0, 100000};
        const int nReady =
            select(std::max(nSocket, nPipe) + 1, &setReady, nullptr, nullptr, &tvWait);
        if (nReady > 0 && FD_ISSET(nSocket, &setReady) && !StoreOne(nSocket, nFile, header)) {
            _exit(1);
        }
    }
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
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setsid();  // like the detached service: the kernel shares out processor time by session
        if (threads == Threads::OneSleepsToo) {
            StartSleeper();
        }
        RunBareLoop(udp.Get(), readEnd.Get(), file.Get(), header);
    }
}

CBareIntake::~CBareIntake() {
    kill(m_Intake.nPid, SIGKILL);
    waitpid(m_Intake.nPid, nullptr, 0);
}
