#include "peers/Service.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "peers/ReadWhole.h"
#include "support/UniqueFd.h"

namespace fs = std::filesystem;

bool WaitUntil(const std::function<bool()>& condition, int nLimitMs) {
    const auto tEnd = std::chrono::steady_clock::now() + std::chrono::milliseconds(nLimitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > tEnd) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

namespace {

// Whether no socket of this machine has wPort, nor a connection that ended a moment ago.
bool IsPortFree(int nType, std::uint16_t wPort) {
    const CUniqueFd probe(socket(AF_INET, nType | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(wPort);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

// Keeps wPort from all other tests until this process ends. False when one of them has it.
bool ReservePort(std::uint16_t wPort) {
    static std::vector<CUniqueFd> s_listReservations;
    CUniqueFd reservation(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    // A name in no file system, which goes with its socket.
    fmt::format_to_n(name.sun_path + 1, sizeof(name.sun_path) - 1, "tarvik-test-port-{}", wPort);
    if (bind(reservation.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) != 0) {
        return false;
    }
    s_listReservations.push_back(std::move(reservation));
    return true;
}

}  // namespace

std::uint16_t FreePort(int nType) {
    // Below the ports that the kernel gives to those who ask for any: a connection that a test
    // beside this one opens must not get the port before the service has it.
    static std::mt19937 s_random{std::random_device{}()};
    std::uniform_int_distribution<std::uint16_t> ports(10000, 19999);
    for (int i = 0; i < 1000; ++i) {
        const std::uint16_t wPort = ports(s_random);
        if (ReservePort(wPort) && IsPortFree(nType, wPort)) {
            return wPort;
        }
    }
    throw std::runtime_error("no free port");
}

namespace {

// Whether a UDP socket of this machine is bound to wPort.
bool IsUdpPortOpen(std::uint16_t wPort) {
    std::ifstream table("/proc/net/udp");
    const std::string strWanted = fmt::format(":{:04X} 00000000:0000", wPort);
    for (std::string strLine; std::getline(table, strLine);) {
        if (strLine.find(strWanted) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// The number at the start of strText; 0 when there is none.
int NumberIn(const std::string& strText) {
    return static_cast<int>(std::strtol(strText.c_str(), nullptr, 10));
}

constexpr char kEmulatorVariable[] = "TARVIK_TEST_EMULATOR";

std::string ServiceProgram(std::string strProgram) {
    const char* szOther = std::getenv("TARVIK_TEST_SERVICE");
    return szOther != nullptr ? szOther : std::move(strProgram);
}

}  // namespace

bool CService::IsEmulated() {
    return std::getenv(kEmulatorVariable) != nullptr;
}

CService::CService(std::string strProgram, std::uint16_t wAgentPort)
    : m_strProgram(ServiceProgram(std::move(strProgram))),
      m_wRecordPort(FreePort(SOCK_DGRAM)),
      m_wConsolePort(FreePort(SOCK_STREAM)),
      m_wAgentPort(wAgentPort != 0 ? wAgentPort : FreePort(SOCK_STREAM)) {
    for (const char* szDirectory : {"/log", "/hislog", "/etc/tarvik/log", "/etc/boa", "/var/log",
                                    "/dev/tarvik", "/app", "/config/etc/tarvik/log"}) {
        fs::create_directories(Root() + szDirectory);
    }
    for (int i = 0; i < 3; ++i) {
        m_wControlPorts.push_back(FreePort(SOCK_DGRAM));
    }
    WriteFile("/etc/tarvik/log/log.conf", DefaultConfiguration());
}

CService::~CService() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
}

std::string CService::DefaultConfiguration() const {
    return fmt::format(
        "[PORT_CONFIG]\nPortFromViewer = {}\nPortFromClient = {}\nnSTPort = {}\nTimeoutSet = 120\n"
        "PidCount = 3\n"
        "[0]\nListenPort = {}\nAPP = alpha\n[1]\nListenPort = {}\nAPP = beta\n"
        "[2]\nListenPort = {}\nAPP = gamma\n",
        m_wConsolePort, m_wRecordPort, m_wAgentPort, m_wControlPorts[0], m_wControlPorts[1],
        m_wControlPorts[2]);
}

void CService::SetEnvironment(const std::string& strName, const std::string& strValue) {
    m_mapEnvironment[strName] = strValue;
}

bool CService::FakeClock() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return false;
#endif
    // A program that is linked statically, or a script that has it emulated, names no loader.
    if (ReadWhole(m_strProgram).substr(0, 4096).find("/ld-") == std::string::npos) {
        return false;
    }
    for (const auto& entry : fs::directory_iterator("/usr/lib")) {
        const fs::path library = entry.path() / "faketime/libfaketime.so.1";
        if (fs::exists(library)) {
            SetEnvironment("TZ", "UTC");
            SetEnvironment("LD_PRELOAD", library);
            SetEnvironment("FAKETIME_TIMESTAMP_FILE", Path("/clock"));
            SetEnvironment("FAKETIME_NO_CACHE", "1");
            SetEnvironment("FAKETIME_DONT_FAKE_MONOTONIC", "1");
            SetEnvironment("DONT_FAKE_MONOTONIC", "1");
            // else waiting for a monotonic time would end by the replaced clock
            SetEnvironment("FAKETIME_FORCE_MONOTONIC_FIX", "0");
            return true;
        }
    }
    throw std::runtime_error("libfaketime is missing: scripts/setup installs it");
}

void CService::SetClock(const std::string& strTime) const {
    WriteFile("/clock.new", strTime + "\n");
    fs::rename(Path("/clock.new"), Path("/clock"));
}

void CService::Launch(bool bDetached) {
    // A detached service becomes a child of this process, so that its end can be waited for.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const std::string strOutput = Path("/stdout");
    const pid_t nChild = fork();
    if (nChild == 0) {
        for (const auto& [strName, strValue] : m_mapEnvironment) {
            strValue.empty() ? unsetenv(strName.c_str())
                             : setenv(strName.c_str(), strValue.c_str(), 1);
        }
        setenv("TARVIK_ROOT", Root().c_str(), 1);
        const int nOutput = open(strOutput.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
        dup2(nOutput, STDOUT_FILENO);
        closefrom(STDERR_FILENO + 1);  // ctest hands its log file down
        execl(m_strProgram.c_str(), m_strProgram.c_str(), bDetached ? nullptr : "app", nullptr);
        _exit(127);
    }
    m_nPid = nChild;
    if (bDetached) {
        Wait();
        WaitUntil([this] { return (m_nPid = FindDetached()) != 0; }, 2000);
    }
}

bool CService::Start(bool bDetached) {
    Launch(bDetached);
    // the command link is the last thread to start
    return WaitUntil([this] { return !IsRunning() || Thread("logd.cmdlink") != 0; }) &&
           IsRunning() && IsUdpPortOpen(m_wRecordPort);
}

bool CService::IsRunning() const {
    siginfo_t ended{};
    return m_nPid != 0 &&
           waitid(P_PID, static_cast<id_t>(m_nPid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           ended.si_pid == 0;
}

// The one process that runs the program and was handed to this one when its parent ended; one that
// has ended meanwhile is found by that.
pid_t CService::FindDetached() const {
    const char* szEmulator = std::getenv(kEmulatorVariable);
    const std::string strName =
        (szEmulator != nullptr ? szEmulator : fs::path(m_strProgram).filename().string()) + "\n";
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const pid_t nPid = NumberIn(entry.path().filename());
        if (nPid <= 0) {
            continue;
        }
        const std::string strStatus = ReadWhole(entry.path() / "status");
        const std::size_t nParent = strStatus.find("\nPPid:\t");
        if (nParent != std::string::npos && NumberIn(strStatus.substr(nParent + 7)) == getpid() &&
            (ReadWhole(entry.path() / "environ").find("TARVIK_ROOT=" + Root()) !=
                 std::string::npos ||
             (strStatus.find("\nState:\tZ") != std::string::npos &&
              ReadWhole(entry.path() / "comm") == strName))) {
            return nPid;
        }
    }
    return 0;
}

void CService::Signal(int nSignal) {
    if (m_nPid > 0) {
        kill(m_nPid, nSignal);
    }
}

std::optional<int> CService::Wait(int nLimitMs) {
    int nStatus = 0;
    const bool bEnded =
        WaitUntil([&] { return waitpid(m_nPid, &nStatus, WNOHANG) == m_nPid; }, nLimitMs);
    if (!bEnded) {
        return std::nullopt;
    }
    m_nPid = 0;
    return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
}

void CService::WaitFor(pid_t nChild) {
    waitpid(nChild, nullptr, 0);
}

std::optional<int> CService::Stop() {
    Signal(SIGTERM);
    return Wait();
}

pid_t CService::Thread(const std::string& strName) const {
    std::error_code gone;  // the service may end at any time
    for (const auto& entry : fs::directory_iterator(fmt::format("/proc/{}/task", m_nPid), gone)) {
        if (ReadWhole(entry.path() / "comm") == strName + "\n") {
            return NumberIn(entry.path().filename());
        }
    }
    return 0;
}

std::string CService::ReadFile(const std::string& strPath) const {
    return ReadWhole(Path(strPath));
}

void CService::WriteFile(const std::string& strPath, const std::string& strContent) const {
    std::ofstream(Path(strPath), std::ios::binary) << strContent;
}

std::vector<std::string> CService::List(const std::string& strDirectory) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Path(strDirectory))) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}
