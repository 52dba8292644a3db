#include "core/Process.h"

#include <unistd.h>

#include <csignal>

#include "core/Progress.h"
#include "core/Trace.h"

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

void EndProcess(int nStatus) {
    FlushProgress();
    EndTraces();  // a record that another thread is writing gets whole
    _exit(nStatus);
}
