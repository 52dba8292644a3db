// Entry point of tarvik-logd: start-up in a fixed order, the watch for the change of day, and the
// way down (docs/architecture.md, "Life of the process").
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "console/CommunicatThread.h"
#include "core/CircleBuffer.h"
#include "core/ConfigKeys.h"
#include "core/MsgQueue.h"
#include "core/Process.h"
#include "core/Progress.h"
#include "core/ServiceFiles.h"
#include "core/ServiceSettings.h"
#include "core/ThreadMsg.h"
#include "core/TimerService.h"
#include "core/Trace.h"
#include "link/CmdThread.h"
#include "logstore/LogFile.h"
#include "logstore/LogRecvThread.h"
#include "support/Date.h"
#include "support/Directory.h"
#include "support/IniFile.h"
#include "support/MonoClock.h"
#include "support/ParseInt.h"
#include "support/Socket.h"
#include "support/SystemPath.h"
#include "support/UniqueFd.h"

// Cleared by the SIGTERM handler, read by the date watch.
std::atomic<std::int32_t> g_bRunning{1};
static_assert(std::atomic<std::int32_t>::is_always_lock_free, "a signal handler writes it");

namespace {

constexpr std::uint32_t kCircleBufferBytes = 102400;

// The service says so when it cannot start, and with which status it ends then.
constexpr int kStatusNoPipes = 1;
constexpr int kStatusNoCircleBuffer = 20;
constexpr int kStatusNoLogFile = 30;
constexpr int kStatusNoWorkers = 40;

// Every trace of the entry point names it, whichever of its steps failed.
constexpr const char* kTraceName = "main";

struct Workers {
    std::unique_ptr<CLogRecvThread> pIntake;
    std::unique_ptr<CCommunicatThread> pConsole;
    std::unique_ptr<CCmdThread> pCmdLink;
};

struct Worker {
    pthread_t thread{};
    bool bStarted = false;
};

// The values of the required keys.
struct Settings {
    std::int32_t nViewerPort = 0;
    std::int32_t nClientPort = 0;
    std::int32_t nAgentPort = 0;
    std::int32_t nTimeoutDelay = 0;
    std::int32_t nPidCount = 0;
};

// What becomes of a required key: where its value goes, and the progress lines behind it.
struct KeyStep {
    std::int32_t Settings::*pValue;
    const char* szProgress;
    const char* szShownName;  // of a line with the value; null: there is no such line
};

constexpr std::array<KeyStep, kRequiredKeys.size()> kKeySteps = {
    {{&Settings::nViewerPort, "-Start  5....\n", "nTcpListenPort"},
     {&Settings::nClientPort, "***Start  6....\n", "nUdpbindPort"},
     {&Settings::nAgentPort, "Start  7....\n", "g_nSTPort"},
     {&Settings::nTimeoutDelay, "", nullptr},
     {&Settings::nPidCount, "Start  8....\n", nullptr}}};

// A pipe or socket must never get a number below 3: 0 means "none" in places, and what is printed
// must not end up in a log file. Nothing here reads standard input; on a terminal the "mv" of the
// shell would, to ask a question that nobody answers.
void PrepareStandardStreams() {
    std::signal(SIGPIPE, SIG_IGN);  // nobody has to read the progress lines
    int nDescriptor = 0;
    while (nDescriptor >= 0 && nDescriptor <= STDERR_FILENO) {
        nDescriptor = open("/dev/null", O_RDWR);
    }
    if (nDescriptor > STDERR_FILENO) {
        dup2(nDescriptor, STDIN_FILENO);
        close(nDescriptor);
    }
}

// Exactly one argument, "app", keeps the service in the foreground.
void ChooseMode(int nArguments, char** szArguments) {
    SystemPath("/");  // a relative root counts from here, and detaching changes the directory
    if (nArguments == 2 && std::strcmp(szArguments[1], "app") == 0) {
        Progress("Run app model.\n");
        return;
    }
    Progress("Run deamon model.\n");
    FlushProgress();
    if (daemon(0, 0) != 0) {
        Trace("daemon failed, going on attached.\n", kTraceName);
        return;
    }
    std::signal(SIGHUP, SIG_IGN);  // no terminal is left that could hang up
    SilenceProgress();
}

void OnSignal(int nSignal) {
    if (nSignal == SIGTERM) {
        g_bRunning = 0;
    }
}

void InstallSignals() {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // a write to a closed socket is an error, not the end
    std::signal(SIGXFSZ, SIG_IGN);  // nor is a file that may not grow
    std::signal(SIGCHLD, SIG_IGN);  // shell children are reaped by the system
    sigset_t setTerm;
    sigemptyset(&setTerm);
    sigaddset(&setTerm, SIGTERM);
    pthread_sigmask(SIG_UNBLOCK, &setTerm, nullptr);  // whatever the starter had blocked
}

void SetTimerIntervals() {
    constexpr std::int32_t kCmdMs[] = {3000, 3000, 5000, 5000};
    constexpr std::int32_t kUploadMs[] = {20000, 10000, 10000};
    static_assert(sizeof(kCmdMs) == sizeof(g_nCmdTimerInterval));
    static_assert(sizeof(kUploadMs) == sizeof(g_nUploadTimerInterval));
    std::memcpy(g_nCmdTimerInterval, kCmdMs, sizeof(kCmdMs));
    std::memcpy(g_nUploadTimerInterval, kUploadMs, sizeof(kUploadMs));
}

int GetCurrentDay() {
    int nYear = 0;
    int nMonth = 0;
    int nDay = 0;
    GetCurrentDate(nYear, nMonth, nDay);
    return nDay;
}

// Leaves nothing but today's file in the directory of the day's files.
void RemoveStaleLogFiles(const std::string& strTodayFile) {
    const std::string strDirectory = SystemPath(kLogDirectory);
    const auto pDir = OpenDirectory(strDirectory);
    if (pDir == nullptr) {
        return;
    }
    while (const dirent* pEntry = readdir(pDir.get())) {
        const std::string strPath = strDirectory + pEntry->d_name;
        if (strPath != strTodayFile) {
            // "." and ".." refuse; what stays is tried at the next start.
            std::remove(strPath.c_str());
        }
    }
}

// False when memory does not suffice; the process ends then.
bool MakeWorkers(Workers& workers) {
    try {
        workers.pIntake = std::make_unique<CLogRecvThread>();
        workers.pConsole = std::make_unique<CCommunicatThread>();
        g_pCommunicatThread = workers.pConsole.get();
        workers.pCmdLink = std::make_unique<CCmdThread>();
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// Reads the required keys. 0, or the status to end with at the first without a value, which is
// traced.
int ReadRequiredKeys(const CIniFile& config, Settings& settings) {
    for (std::size_t nKey = 0; nKey < kRequiredKeys.size(); ++nKey) {
        const RequiredKey& key = kRequiredKeys[nKey];
        const KeyStep& step = kKeySteps[nKey];
        const std::string strValue = config.GetValue(kPortSection, key.szKey);
        if (strValue.empty()) {
            Trace(key.szTrace, kTraceName);
            return key.nStatus;
        }
        settings.*step.pValue = ParseInt(strValue);
        Progress("%s", step.szProgress);
        if (step.szShownName != nullptr) {
            Progress("%s =%d\n", step.szShownName, settings.*step.pValue);
        }
    }
    return 0;
}

void RegisterLogClients(const CIniFile& config, std::int32_t nCount, Workers& workers) {
    // More sections than this are no configuration but a mistake, which would hold the start up.
    constexpr std::int32_t kMostSections = 10000;
    nCount = std::min(nCount, kMostSections);
    for (std::int32_t nIndex = 0; nIndex < nCount && g_bRunning != 0; ++nIndex) {
        const std::string strSection = std::to_string(nIndex);
        const std::string strPort = config.GetValue(strSection, kListenPortKey);
        const std::string strName = config.GetValue(strSection, kAppNameKey);
        if (strPort.empty() || strName.empty()) {
            Progress("index=%d cannot load ListenPort or AppName.\n", nIndex);
            continue;
        }
        LogClientEntry entry;
        entry.nIndex = nIndex;
        entry.nPort = ParseInt(strPort);
        entry.SetAppName(strName);
        workers.pIntake->AddLogClient(entry);
        workers.pConsole->AddLogClient(entry);
    }
}

// Reads the configuration file into the settings and the workers. 0, or the status to end with.
int LoadConfiguration(Workers& workers, Settings& settings) {
    CIniFile config;
    if (!config.Load(SystemPath(kConfigurationFile))) {
        Trace("mainservice failed to load file log.conf\n", kTraceName);
        return kStatusNoConfiguration;
    }
    Progress("Start  4....\n");
    const int nStatus = ReadRequiredKeys(config, settings);
    if (nStatus != 0) {
        return nStatus;
    }
    g_nSTPort = settings.nAgentPort;
    workers.pConsole->SetTimeoutDelay(settings.nTimeoutDelay);
    RegisterLogClients(config, settings.nPidCount, workers);
    return 0;
}

template <class TWorker, int (TWorker::*pfnBody)()>
void* RunWorker(void* pWorker) {
    (static_cast<TWorker*>(pWorker)->*pfnBody)();
    return nullptr;
}

// False, traced as szFailure, when the thread cannot be created.
bool StartWorker(Worker& worker, const char* szName, void* (*pfnBody)(void*), void* pObject,
                 const char* szFailure, int nLine = __builtin_LINE()) {
    worker.bStarted = StartThread(worker.thread, szName, pfnBody, pObject) == 0;
    if (!worker.bStarted) {
        Trace(szFailure, kTraceName, __FILE__, nLine);
    }
    return worker.bStarted;
}

struct Threads {
    Worker intake;
    Worker console;
    Worker cmdLink;
};

// Opens the ports and starts the workers. False, after its trace, at the first that fails.
bool StartWorkers(Workers& workers, Threads& threads, const Settings& settings) {
    if (workers.pConsole->Init(settings.nViewerPort) != 0) {
        Trace("initialize communicatThread failed!\n", kTraceName);
        return false;
    }
    Progress("Start  82....\n");
    if (workers.pIntake->Init(static_cast<std::uint16_t>(settings.nClientPort)) != 0) {
        Trace("initialize recv thread failed!\n", kTraceName);
        return false;
    }
    // Only the process that keeps running gets this far. Without the cleaner the queue still works;
    // entries that nobody fetches stay in it.
    static_cast<void>(g_MsgQueue.StartCleaner());
    return StartWorker(threads.intake, "logd.intake",
                       RunWorker<CLogRecvThread, &CLogRecvThread::Run>, workers.pIntake.get(),
                       "failed to create recv thread!\n") &&
           StartWorker(threads.console, "logd.console",
                       RunWorker<CCommunicatThread, &CCommunicatThread::ThreadRun>,
                       workers.pConsole.get(), "failed to create  send thread!\n") &&
           StartWorker(threads.cmdLink, "logd.cmdlink", RunWorker<CCmdThread, &CCmdThread::Run>,
                       workers.pCmdLink.get(), "failed to create  cmd thread!\n");
}

// Milliseconds until the next look at the date: the next local midnight, rounded up, and a second
// at most, since the zone of the machine may be another by then.
int MsToNextLook() {
    constexpr std::int64_t kLookMs = 1000;
    timespec tsNow{};
    clock_gettime(CLOCK_REALTIME, &tsNow);
    const std::tm tmNow = LocalTime(tsNow.tv_sec);
    const std::int64_t nSeconds = (24 - tmNow.tm_hour) * 3600 - tmNow.tm_min * 60 - tmNow.tm_sec;
    const std::int64_t nMs = nSeconds * 1000 - tsNow.tv_nsec / 1'000'000;
    return static_cast<int>(std::clamp<std::int64_t>(nMs, 1, kLookMs));
}

// Becomes readable when somebody sets the clock. Without one, a jump is noticed within a second.
CUniqueFd WatchClock() {
    constexpr itimerspec kNever{{0, 0}, {std::numeric_limits<std::int32_t>::max(), 0}};
    CUniqueFd clock(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (clock.IsOpen()) {
        timerfd_settime(clock.Get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &kNever, nullptr);
    }
    return clock;
}

// Sleeps until the date may be another or SIGTERM comes, which is blocked but for this sleep: it
// cannot fall between the look at g_bRunning and the sleep.
void SleepToNextLook(CUniqueFd& clock, const sigset_t& setSleeping) {
    const int nMs = MsToNextLook();
    const timespec tsLimit{nMs / 1000, nMs % 1000 * 1'000'000L};
    pollfd wait{clock.Get(), POLLIN, 0};
    if (ppoll(&wait, 1, &tsLimit, &setSleeping) > 0) {
        clock = WatchClock();  // it tells of one setting
    }
}

void SwitchLogFile(CLogFile& logFile) {
    int nResult = -1;
    try {
        nResult = logFile.SwitchLogFile();
    } catch (const std::bad_alloc&) {
        Progress("no memory to switch the log file\n");
    }
    if (nResult != 0) {
        Trace("failed to switch log file\n", kTraceName);
    }
}

// Looks at the date until SIGTERM comes, and switches the day's file when the day of the month is
// not nDay any more.
void WatchDate(CLogFile& logFile, int nDay) {
    sigset_t setTerm;
    sigset_t setSleeping;
    sigemptyset(&setTerm);
    sigaddset(&setTerm, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &setTerm, &setSleeping);
    CUniqueFd clock = WatchClock();
    while (g_bRunning != 0) {
        SleepToNextLook(clock, setSleeping);
        const int nToday = GetCurrentDay();
        if (nToday != nDay) {
            nDay = nToday;
            SwitchLogFile(logFile);
        }
    }
}

void Join(const Worker& worker) {
    if (worker.bStarted) {
        pthread_join(worker.thread, nullptr);
    }
}

// The console may wait for a file or a shell command that never ends; the way down does not. False
// when the thread still runs.
bool JoinConsole(const Worker& worker) {
    if (!worker.bStarted) {
        return true;
    }
    const std::int64_t nLimitMs = MonotonicMs() + 1000;
    while (pthread_tryjoin_np(worker.thread, nullptr) != 0) {
        if (MonotonicMs() >= nLimitMs) {
            return false;
        }
        Rest(1000);
    }
    return true;
}

[[noreturn]] void Shutdown(Workers& workers, const Threads& threads) {
    workers.pIntake->Stop();
    workers.pConsole->Stop();
    workers.pCmdLink->Stop();
    Join(threads.intake);
    Join(threads.cmdLink);
    if (!JoinConsole(threads.console)) {
        static_cast<void>(workers.pConsole.release());  // in use until the process has ended
        Progress("End  ....\n");
        EndProcess(0);
    }
    g_CircleBuffer.Release();
    workers.pIntake.reset();
    workers.pConsole.reset();
    workers.pCmdLink.reset();
    Progress("End  ....\n");
    EndProcess(0);
}

// Opens the file of today's date; ends the process when that fails.
void OpenTodayFile(CLogFile& logFile) {
    const CLockGuard guard(logFile);
    if (logFile.OpenLogFile() != 0) {
        Trace("failed to open log file!!!\n", kTraceName);
        EndProcess(kStatusNoLogFile);
    }
}

}  // namespace

int main(int argc, char** argv) {
    PrepareStandardStreams();
    InitProgress();
    ChooseMode(argc, argv);
    Progress("Start  ....\n");
    InstallSignals();
    if (!CreateMsgqueue()) {
        Trace("mainservice failed to CreateMsgqueue\n");
        return kStatusNoPipes;
    }
    static_cast<void>(g_TimerService.StartTimerThread());  // without timers the store still works
    SetTimerIntervals();
    if (g_CircleBuffer.Init(kCircleBufferBytes) == 0) {
        Trace("failed to init circle buffer!\n");
        EndProcess(kStatusNoCircleBuffer);
    }

    Progress("Start  1....\n");
    // The day is taken before the file is opened, so that a midnight in between is noticed.
    const int nDay = GetCurrentDay();
    CLogFile logFile;
    OpenTodayFile(logFile);
    Progress("Start  2....\n");
    logFile.FinishMoves();
    RemoveStaleLogFiles(logFile.GetFileName());

    // Never destroyed but by Shutdown: the normal exit of one status has no connection to close.
    static auto* const pWorkers = new Workers;
    Workers& workers = *pWorkers;
    if (!MakeWorkers(workers)) {
        EndProcess(kStatusNoWorkers);
    }
    Progress("Start  3....\n");
    workers.pIntake->SetLogFile(&logFile);
    Settings settings;
    const int nStatus = LoadConfiguration(workers, settings);
    if (nStatus == kStatusNoTimeoutSet) {
        return nStatus;
    }
    if (nStatus != 0) {
        EndProcess(nStatus);
    }
    Progress("Start  81....\n");

    Threads threads;
    if (StartWorkers(workers, threads, settings)) {
        Progress("Start  83....\n");
        WatchDate(logFile, nDay);
    }
    Shutdown(workers, threads);
}
