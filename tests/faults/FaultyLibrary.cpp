// Put in front of the C library, this lets the memory of one thread fail at a chosen allocation,
// and lets flushes of files wait. The test says what by the mapped file that FAULTY_LIBRARY names.
#include "faults/FaultyLibrary.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

extern "C" {
void* __libc_malloc(std::size_t nBytes);
void* __libc_calloc(std::size_t nItems, std::size_t nBytes);
void* __libc_realloc(void* pOld, std::size_t nBytes);
}

namespace {

FaultPlan* Plan() {
    static FaultPlan* const pPlan = []() -> FaultPlan* {
        const char* szPath = std::getenv("FAULTY_LIBRARY");
        const int nFile = szPath == nullptr ? -1 : open(szPath, O_RDWR | O_CLOEXEC);
        void* pMapped = nFile < 0 ? MAP_FAILED
                                  : mmap(nullptr, sizeof(FaultPlan), PROT_READ | PROT_WRITE,
                                         MAP_SHARED, nFile, 0);
        if (nFile >= 0) {
            close(nFile);
        }
        return pMapped == MAP_FAILED ? nullptr : static_cast<FaultPlan*>(pMapped);
    }();
    return pPlan;
}

// Allocations of the planned thread are counted down; the one that comes to 0 fails.
bool FailsNow() {
    FaultPlan* const pPlan = Plan();
    if (pPlan == nullptr || pPlan->nCountdown <= 0) {
        return false;
    }
    char szName[16] = {};
    prctl(PR_GET_NAME, szName);
    if (std::strcmp(szName, pPlan->szThread) != 0 || --pPlan->nCountdown != 0) {
        return false;
    }
    ++pPlan->nFailed;
    errno = ENOMEM;
    return true;
}

}  // namespace

extern "C" {

void* malloc(std::size_t nBytes) {
    return FailsNow() ? nullptr : __libc_malloc(nBytes);
}

void* calloc(std::size_t nItems, std::size_t nBytes) {
    return FailsNow() ? nullptr : __libc_calloc(nItems, nBytes);
}

void* realloc(void* pOld, std::size_t nBytes) {
    return FailsNow() ? nullptr : __libc_realloc(pOld, nBytes);
}

int fsync(int nFile) {
    FaultPlan* const pPlan = Plan();
    if (pPlan != nullptr && pPlan->nHoldFlushes != 0) {
        ++pPlan->nHeld;
        const timespec tsRest{0, 1'000'000};
        while (pPlan->nHoldFlushes != 0) {
            nanosleep(&tsRest, nullptr);
        }
    }
    return static_cast<int>(syscall(SYS_fsync, nFile));
}

}  // extern "C"
