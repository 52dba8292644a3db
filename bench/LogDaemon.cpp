#include "bench/LogDaemon.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "bench/OpenWatch.h"
#include "peers/LogClient.h"
#include "peers/Service.h"
#include "support/UniqueFd.h"

namespace fs = std::filesystem;

enum class DaemonInput : std::uint8_t {
    kUdp,
    kLocalSocket,  // a private /dev/log
    kPipe,         // a named pipe, frames of DLT
};

struct DaemonRecipe {
    const char* szName;
    const char* szPath;  // of the program in its package
    DaemonInput eInput;
    std::string (*pfnConfig)(const std::string& strDirectory, std::uint16_t wPort);
    std::vector<std::string> (*pfnArguments)(const std::string& strDirectory,
                                             const std::string& strPrefix);
};

namespace {

// The directories below strDirectory; none when there is no such directory.
std::vector<std::string> DirectoriesIn(const std::string& strDirectory) {
    std::vector<std::string> directories;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(strDirectory, none)) {
        if (entry.is_directory()) {
            directories.push_back(entry.path());
        }
    }
    return directories;
}

std::string RsyslogdConfig(const std::string& strDirectory, std::uint16_t wPort) {
    return fmt::format(
        "global(workDirectory=\"{0}\" net.enableDNS=\"off\")\n"
        "module(load=\"imudp\")\n"
        "input(type=\"imudp\" address=\"127.0.0.1\" port=\"{1}\")\n"
        "action(type=\"omfile\" file=\"{0}/out\")\n",
        strDirectory, wPort);
}

std::vector<std::string> RsyslogdArguments(const std::string& strDirectory,
                                           const std::string& strPrefix) {
    std::vector<std::string> arguments{"-n", "-iNONE", "-f", strDirectory + "/conf"};
    for (const std::string& strLibraries : DirectoriesIn(strPrefix + "/usr/lib")) {
        if (!strPrefix.empty() && fs::exists(strLibraries + "/rsyslog")) {
            arguments.insert(arguments.end(), {"-M", strLibraries + "/rsyslog"});
        }
    }
    return arguments;
}

std::string SyslogNgConfig(const std::string& strDirectory, std::uint16_t wPort) {
    return fmt::format(
        "@version: current\n"
        "options {{ use-dns(no); dns-cache(no); keep-hostname(yes); stats-freq(0); }};\n"
        "source s {{ network(ip(\"127.0.0.1\") port({1}) transport(\"udp\")); }};\n"
        "destination d {{ file(\"{0}/out\"); }};\n"
        "log {{ source(s); destination(d); }};\n",
        strDirectory, wPort);
}

std::vector<std::string> SyslogNgArguments(const std::string& strDirectory,
                                           const std::string& strPrefix) {
    std::vector<std::string> arguments{"-F", "--no-caps"};
    const std::array<std::array<const char*, 2>, 4> files{
        {{"-f", "/conf"}, {"-p", "/pid"}, {"-R", "/persist"}, {"-c", "/control"}}};
    for (const auto& [szOption, szFile] : files) {
        arguments.insert(arguments.end(), {szOption, strDirectory + szFile});
    }
    if (!strPrefix.empty()) {
        arguments.push_back(fmt::format(
            "--module-path={}", fmt::join(DirectoriesIn(strPrefix + "/usr/lib/syslog-ng"), ":")));
    }
    return arguments;
}

// Debian's is built without rotation of the file, so there is none to switch off.
std::vector<std::string> BusyboxArguments(const std::string& strDirectory, const std::string&) {
    return {"syslogd", "-n", "-O", strDirectory + "/out"};
}

// It keeps messages by itself only in the mode "internal", which it takes from its last run.
std::string DltConfig(const std::string& strDirectory, std::uint16_t) {
    std::ofstream(strDirectory + "/dlt-runtime.cfg") << "LoggingMode = 2\n";
    return fmt::format(
        "LoggingMode = 3\nLoggingLevel = 3\nPersistanceStoragePath = {0}\n"
        "ControlSocketPath = {0}/control\nOfflineTraceDirectory = {0}/out\n"
        "OfflineTraceFileSize = 50000000\nOfflineTraceMaxSize = 2000000000\n"
        "OfflineTraceFileNameTimestampBased = 0\n",
        strDirectory);
}

std::vector<std::string> DltArguments(const std::string& strDirectory, const std::string&) {
    return {"-c", strDirectory + "/conf",
            "-t", strDirectory,
            "-p", std::to_string(FreePort(SOCK_STREAM))};
}

const std::array<DaemonRecipe, 4> kRecipes{
    {{"rsyslogd", "/usr/sbin/rsyslogd", DaemonInput::kUdp, RsyslogdConfig, RsyslogdArguments},
     {"syslog-ng", "/usr/sbin/syslog-ng", DaemonInput::kUdp, SyslogNgConfig, SyslogNgArguments},
     {"busybox", "/bin/busybox", DaemonInput::kLocalSocket, nullptr, BusyboxArguments},
     {"dlt-daemon", "/usr/bin/dlt-daemon", DaemonInput::kPipe, DltConfig, DltArguments}}};

// What stands in front of the text of kSampleText in a message to dlt-daemon's pipe: the mark of a
// log message, the standard header, big-endian, and the extended one, and the head of one text.
std::string DltHead() {
    constexpr std::size_t kText = sizeof(kSampleText) - 1;
    constexpr std::size_t kBehindMark = 28;  // headers and head of the text
    std::string strHead("DUH\1\1\0\0\0", 8);
    strHead += std::string("\x35\0\0", 3) + static_cast<char>(kBehindMark + kText);
    strHead += std::string("ECU1\0\0\0\1", 8);
    strHead += std::string("\x41\1WEBDLOG\0", 10);
    return strHead + std::string("\0\2\0\0", 4) + static_cast<char>(kText) + '\0';
}
constexpr std::size_t kDltStoredBytes = 16 + 28 + sizeof(kSampleText) - 1;

// The writing end of the pipe; closed when nobody reads it.
CUniqueFd OpenPipe(const std::string& strPath) {
    CUniqueFd pipe(open(strPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (pipe.IsOpen()) {
        fcntl(pipe.Get(), F_SETFL, 0);
    }
    return pipe;
}

// Puts directories of its own over /dev and /run of this process, so that the machine's stay as
// they are. False with errno when that may not be done.
bool EnterPrivateDevices(const std::string& strDirectory) {
    const int nUser = geteuid() == 0 ? 0 : CLONE_NEWUSER;
    return unshare(CLONE_NEWNS | nUser) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount((strDirectory + "/dev").c_str(), "/dev", nullptr, MS_BIND, nullptr) == 0 &&
           mount((strDirectory + "/run").c_str(), "/run", nullptr, MS_BIND, nullptr) == 0;
}

// A socket whose messages go to strPath; closed when nobody takes any there.
CUniqueFd ConnectLocal(const std::string& strPath) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strPath.copy(address.sun_path, sizeof(address.sun_path) - 1);
    CUniqueFd local(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (connect(local.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        local.Reset();
    }
    return local;
}

// The last line of a file.
std::string LastLine(const std::string& strPath) {
    std::string strLast;
    std::ifstream file(strPath);
    for (std::string strLine; std::getline(file, strLine);) {
        strLast = strLine.empty() ? strLast : strLine;
    }
    return strLast;
}

void SetLibraryPath(const std::string& strPrefix) {
    std::vector<std::string> directories = DirectoriesIn(strPrefix + "/usr/lib");
    const auto more = DirectoriesIn(strPrefix + "/lib");
    directories.insert(directories.end(), more.begin(), more.end());
    setenv("LD_LIBRARY_PATH", fmt::format("{}", fmt::join(directories, ":")).c_str(), 1);
}

}  // namespace

std::string DaemonProgram::Path() const {
    const std::string strPath = strPrefix + pRecipe->szPath;
    return access(strPath.c_str(), X_OK) == 0 ? strPath : std::string();
}

std::vector<std::string> DaemonNames() {
    std::vector<std::string> names;
    std::transform(kRecipes.begin(), kRecipes.end(), std::back_inserter(names),
                   [](const DaemonRecipe& recipe) { return recipe.szName; });
    return names;
}

DaemonProgram FindDaemon(const std::string& strName, const std::string& strPrefix) {
    const auto* const pRecipe =
        std::find_if(kRecipes.begin(), kRecipes.end(),
                     [&](const DaemonRecipe& recipe) { return recipe.szName == strName; });
    if (pRecipe == kRecipes.end()) {
        throw std::invalid_argument(strName);
    }
    const DaemonProgram unpacked{pRecipe, strPrefix};
    return unpacked.Path().empty() ? DaemonProgram{pRecipe, ""} : unpacked;
}

CLogDaemon::CLogDaemon(const DaemonProgram& program)
    : m_Program(program), m_wPort(FreePort(SOCK_DGRAM)) {
    fs::create_directory(m_strDirectory + "/dev");
    fs::create_directory(m_strDirectory + "/run");
    if (StoredBytes() > 0) {
        fs::create_directory(OutputFile());
    }
    if (m_Program.pRecipe->pfnConfig != nullptr) {
        std::ofstream(m_strDirectory + "/conf")
            << m_Program.pRecipe->pfnConfig(m_strDirectory, m_wPort);
    }
}

CLogDaemon::~CLogDaemon() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
    }
}

void CLogDaemon::Launch() {
    m_nPid = fork();
    if (m_nPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (m_nPid == 0) {
        Become();
    }
}

void CLogDaemon::Become() const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setsid();  // like the detached service: the kernel shares out processor time by session
    const int nOutput =
        open((m_strDirectory + "/said").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    dup2(nOutput, STDOUT_FILENO);
    dup2(nOutput, STDERR_FILENO);
    closefrom(STDERR_FILENO + 1);
    if (m_Program.pRecipe->eInput == DaemonInput::kLocalSocket &&
        !EnterPrivateDevices(m_strDirectory)) {
        fmt::print(stderr, "no private /dev: {}\n", std::generic_category().message(errno));
        _exit(1);
    }
    if (!m_Program.strPrefix.empty()) {
        SetLibraryPath(m_Program.strPrefix);
    }
    const std::string strPath = m_Program.Path();
    auto words = m_Program.pRecipe->pfnArguments(m_strDirectory, m_Program.strPrefix);
    words.insert(words.begin(), strPath);
    std::vector<char*> arguments;
    std::transform(words.begin(), words.end(), std::back_inserter(arguments),
                   [](std::string& strWord) { return strWord.data(); });
    arguments.push_back(nullptr);
    execv(strPath.c_str(), arguments.data());
    _exit(127);
}

void CLogDaemon::Start() {
    COpenWatch watch(Probe());
    Launch();
    if (watch.OpenedAt() == 0) {
        throw std::runtime_error(LastLine(m_strDirectory + "/said"));
    }
}

std::function<bool()> CLogDaemon::Probe() const {
    if (m_Program.pRecipe->eInput == DaemonInput::kUdp) {
        return UdpPortProbe(m_wPort);
    }
    if (m_Program.pRecipe->eInput == DaemonInput::kPipe) {
        return [strPath = Pipe()] { return OpenPipe(strPath).IsOpen(); };
    }
    return [strPath = LocalSocket()] { return ConnectLocal(strPath).IsOpen(); };
}

std::size_t CLogDaemon::StoredBytes() const {
    return m_Program.pRecipe->eInput == DaemonInput::kPipe ? kDltStoredBytes : 0;
}

std::string CLogDaemon::MessageHead() const {
    if (m_Program.pRecipe->eInput == DaemonInput::kPipe) {
        return DltHead();
    }
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    std::array<char, 32> szStamp{};
    std::strftime(szStamp.data(), szStamp.size(), "%b %e %H:%M:%S", &tmNow);
    // A local message names no host; the daemon puts in the machine's.
    return fmt::format("<13>{} {}webd: ", szStamp.data(),
                       m_Program.pRecipe->eInput == DaemonInput::kUdp ? "appliance " : "");
}

CSyslogSender::Send CLogDaemon::Sender() const {
    if (m_Program.pRecipe->eInput == DaemonInput::kPipe) {
        return [pPipe = std::make_shared<CUniqueFd>(OpenPipe(Pipe()))](const void* pData,
                                                                       std::size_t nLen) {
            if (write(pPipe->Get(), pData, nLen) != static_cast<ssize_t>(nLen)) {
                throw std::system_error(errno, std::generic_category(), "pipe of dlt-daemon");
            }
        };
    }
    if (m_Program.pRecipe->eInput == DaemonInput::kUdp) {
        return [pClient = std::make_shared<CLogClient>(m_wPort)](
                   const void* pData, std::size_t nLen) { pClient->SendBytes(pData, nLen); };
    }
    const auto pLocal = std::make_shared<CUniqueFd>(ConnectLocal(LocalSocket()));
    return [pLocal](const void* pData, std::size_t nLen) {
        if (send(pLocal->Get(), pData, nLen, MSG_NOSIGNAL) < 0) {
            throw std::system_error(errno, std::generic_category(), "/dev/log");
        }
    };
}
