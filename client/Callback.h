// A callback of the program: set by one thread, called by another.
//
// Threads: Set and Call from any.
#pragma once

#include <pthread.h>

#include "client/tarvik_log.h"

namespace tarvik {

class CCallback {
public:
    void Set(tarvik_log_callback callback, void* pUser) {
        pthread_mutex_lock(&m_mtx);
        m_Target = {callback, pUser};
        pthread_mutex_unlock(&m_mtx);
    }

    // Without the lock held, so that the callback may set another one.
    void Call(int nValue) {
        pthread_mutex_lock(&m_mtx);
        const Target target = m_Target;
        pthread_mutex_unlock(&m_mtx);
        if (target.callback != nullptr) {
            target.callback(nValue, target.pUser);
        }
    }

private:
    struct Target {
        tarvik_log_callback callback;
        void* pUser;
    };
    // Not std::mutex, whose failures are exceptions: the library needs no C++ run-time.
    pthread_mutex_t m_mtx = PTHREAD_MUTEX_INITIALIZER;
    Target m_Target{};  // guarded by m_mtx
};

}  // namespace tarvik
