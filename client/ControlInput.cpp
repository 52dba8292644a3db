#include "client/ControlInput.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>

#include "client/ControlFrame.h"
#include "client/KeepErrno.h"
#include "client/Loopback.h"
#include "console/LogcCtrlFrame.h"

namespace tarvik {

namespace {

constexpr std::uint32_t kLookIntervalMs = 10;
constexpr int kFramesPerLook = 64;  // a flood of frames must not hold up a call that logs

// So many real-time calls in a row may go by without a look at the clock.
constexpr unsigned int kMaxSkip = 15;

std::uint32_t CoarseMs() {
    timespec tsNow{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &tsNow);
    return static_cast<std::uint32_t>(tsNow.tv_sec) * 1000 +
           static_cast<std::uint32_t>(tsNow.tv_nsec / 1'000'000);
}

}  // namespace

CControlInput::~CControlInput() {
    StopThread();
    for (const int nDescriptor : {m_nSocket, m_nWake}) {
        if (nDescriptor >= 0) {
            close(nDescriptor);
        }
    }
}

int CControlInput::Open(int nIndex, std::uint16_t wPort) {
    m_nIndex = nIndex;
    if (wPort == 0) {
        Skip(TARVIK_LOG_SKIP_ALL);
        return 0;
    }
    m_nSocket = MakeUdpSocket();
    if (m_nSocket < 0 || ToLoopback(bind, m_nSocket, wPort) != 0) {
        return -errno;
    }
    m_nLastLook = CoarseMs() - kLookIntervalMs;
    m_bOthersLook = false;
    return 0;
}

bool CControlInput::TakeUpIfDue() {
    if (m_bOthersLook.load(std::memory_order_relaxed)) {
        return false;
    }
    const std::uint32_t nNow = CoarseMs();
    if (nNow - m_nLastLook.load(std::memory_order_relaxed) < kLookIntervalMs) {
        return false;
    }
    m_nLastLook.store(nNow, std::memory_order_relaxed);
    TakeUp();
    return true;
}

int CControlInput::TakeUp() {
    if (m_bTakingUp.exchange(true, std::memory_order_acquire)) {
        return 0;
    }
    const CKeepErrno keep;
    int nValid = 0;
    for (int nFrame = 0; nFrame < kFramesPerLook && TakeUpOne(nValid); ++nFrame) {
    }
    m_bTakingUp.store(false, std::memory_order_release);
    return nValid;
}

// False when nothing is there. Counts a valid frame in nValid.
bool CControlInput::TakeUpOne(int& nValid) {
    LogcCtrlFrame frame{};
    const ssize_t nLen = recv(m_nSocket, &frame, sizeof(frame), MSG_DONTWAIT | MSG_TRUNC);
    if (nLen < 0) {
        return errno == EINTR;
    }
    const ControlWord word = ReadControlFrame(&frame, static_cast<std::size_t>(nLen), m_nIndex);
    if (word.kind == ControlWord::Kind::kRealTime) {
        SetValue(word.nValue);
    } else if (word.kind == ControlWord::Kind::kLanguage) {
        m_OnLanguage.Call(word.nValue);
    }
    nValid += word.kind == ControlWord::Kind::kNone ? 0 : 1;
    return true;
}

void CControlInput::SetValue(int nValue) {
    const int nBefore = m_nValue.exchange(nValue);
    if (nValue != 0) {
        Skip(0);
    }
    // "Off" comes once for each record that nobody watches; the program hears of it once.
    if (nValue != nBefore) {
        m_OnRealTime.Call(nValue);
    }
}

int CControlInput::Look() {
    const bool bLooked = TakeUpIfDue();
    const int nValue = m_nValue.load();
    if (nValue == 0) {
        Rest(bLooked);
    }
    return nValue;
}

// Lets real-time calls go by while it is off. Calls that follow one another closely leave out the
// clock most of the time; as soon as they come more than a look's interval apart, each one looks.
void CControlInput::Rest(bool bLooked) {
    unsigned int nCalls = TARVIK_LOG_SKIP_ALL;
    if (!m_bOthersLook.load(std::memory_order_relaxed)) {
        const unsigned int nLast = m_nLastSkip.load(std::memory_order_relaxed);
        nCalls = bLooked ? 0 : std::min(2 * nLast + 1, kMaxSkip);
        m_nLastSkip.store(nCalls, std::memory_order_relaxed);
    }
    Skip(nCalls);
    // Another thread may have found "on" since the caller looked; its Skip(0) must not be undone.
    if (m_nValue.load() != 0) {
        Skip(0);
    }
}

void CControlInput::Skip(unsigned int nCalls) {
    std::atomic_ref<unsigned int>(m_nSkip).store(nCalls);
}

int CControlInput::StartThread() {
    if (m_nSocket < 0) {
        return -ENOTCONN;
    }
    if (m_bThread.exchange(true)) {
        return -EALREADY;
    }
    const int nError = StartQuietThread();
    if (nError != 0) {
        m_bThread = false;
        return nError;
    }
    m_nThreadPid = getpid();
    m_bOthersLook = true;
    return 0;
}

// Starts the thread with every signal blocked: those of the program are the program's.
int CControlInput::StartQuietThread() {
    if (m_nWake < 0) {
        m_nWake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    if (m_nWake < 0) {
        return -errno;
    }
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const int nError = pthread_create(&m_Thread, nullptr, ThreadMain, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return -nError;
}

void* CControlInput::ThreadMain(void* pThis) {
    pthread_setname_np(pthread_self(), "tarvik-log");
    static_cast<CControlInput*>(pThis)->WaitForFrames();
    return nullptr;
}

void CControlInput::WaitForFrames() {
    pollfd waiting[] = {{m_nSocket, POLLIN, 0}, {m_nWake, POLLIN, 0}};
    while (waiting[1].revents == 0) {
        const bool bFrames = poll(waiting, std::size(waiting), -1) > 0 && waiting[0].revents != 0;
        if (bFrames && TakeUp() == 0) {
            // A flood of garbage, or a call of the program is at it, perhaps in a slow callback.
            poll(&waiting[1], 1, kLookIntervalMs);
        }
    }
}

void CControlInput::StopThread() {
    if (!m_bThread || m_nThreadPid != getpid()) {
        return;
    }
    // Cannot fail: the counter of an eventfd has room for far more than one.
    eventfd_write(m_nWake, 1);
    pthread_join(m_Thread, nullptr);
}

}  // namespace tarvik
