// Mutex of the service, and the guard that gives it back on every way out of a scope.
//
// Threads: any. Not recursive: a thread that locks twice blocks itself.
#pragma once

#include <pthread.h>

#include "support/ThreadSafety.h"

class CAPABILITY("mutex") CLock {
public:
    CLock();
    virtual ~CLock();
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    // Both return the result of the pthread call: 0, or an error number that only misuse can cause.
    int Lock() ACQUIRE();
    int Unlock() RELEASE();

private:
    pthread_mutex_t m_mutex;
};

// Holds a lock from construction to destruction. TLock: a class with Lock() and Unlock().
template <class TLock>
class SCOPED_CAPABILITY CLockGuard {
public:
    explicit CLockGuard(TLock& lock) ACQUIRE(lock) : m_lock(lock) { m_lock.Lock(); }
    ~CLockGuard() RELEASE() { m_lock.Unlock(); }
    CLockGuard(const CLockGuard&) = delete;
    CLockGuard& operator=(const CLockGuard&) = delete;

private:
    TLock& m_lock;
};
