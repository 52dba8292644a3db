#include "core/Process.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>

#include "core/Progress.h"
#include "core/Trace.h"

namespace {

// What the kernel calls struct sched_attr, in its first version; C libraries have it under that
// name since lately only.
struct SchedulingAttributes {
    std::uint32_t nSize;
    std::uint32_t nPolicy;
    std::uint64_t nFlags;
    std::int32_t nNice;
    std::uint32_t nPriority;
    std::uint64_t nRuntimeNs;  // of SCHED_OTHER: the slice
    std::uint64_t nDeadlineNs;
    std::uint64_t nPeriodNs;
};
static_assert(sizeof(SchedulingAttributes) == 48);

}  // namespace

int StartThread(pthread_t& thread, const char* szName, void* (*pfnBody)(void*), void* pArg) {
    sigset_t setTerm;
    sigset_t setBefore;
    sigemptyset(&setTerm);
    sigaddset(&setTerm, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &setTerm, &setBefore);  // a new thread inherits the mask
    const int nError = pthread_create(&thread, nullptr, pfnBody, pArg);
    pthread_sigmask(SIG_SETMASK, &setBefore, nullptr);
    if (nError == 0) {
        pthread_setname_np(thread, szName);  // a name that is refused changes nothing but listings
    }
    return nError;
}

void TakeShortSlices(int nGiveWay) {
    constexpr std::uint64_t kShortestNs = 100'000;
    SchedulingAttributes attributes{};
    if (syscall(SYS_sched_getattr, 0, &attributes, sizeof(attributes), 0) != 0 ||
        attributes.nPolicy != SCHED_OTHER) {
        return;
    }
    attributes.nRuntimeNs = kShortestNs;
    attributes.nNice = std::min(attributes.nNice + nGiveWay, 19);
    // Nothing depends on it but how soon this thread runs.
    static_cast<void>(syscall(SYS_sched_setattr, 0, &attributes, 0));
}

void EndProcess(int nStatus) {
    FlushProgress();
    EndTraces();  // a record that another thread is writing gets whole
    _exit(nStatus);
}
