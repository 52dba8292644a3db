// The control port of a client: takes up what the service announces there, knows whether real-time
// logging is on, and keeps the answer where the program's inline check reads it.
//
// Who looks at the port: the thread, once StartThread was called; else the calls that log, when the
// last look is long enough ago by a clock that costs next to nothing; and whoever calls TakeUp.
//
// Threads: Open and the destructor while nobody else is there, all else from any.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>

#include "client/Callback.h"

namespace tarvik {

class CControlInput {
public:
    // nSkip: tarvik_log.skip of the handle, which outlives this.
    explicit CControlInput(unsigned int& nSkip) : m_nSkip(nSkip) {}
    ~CControlInput();
    CControlInput(const CControlInput&) = delete;
    CControlInput& operator=(const CControlInput&) = delete;

    // Once. Frames for client nIndex are awaited on wPort of 127.0.0.1; 0: none are. 0, or a
    // negative errno.
    [[nodiscard]] int Open(int nIndex, std::uint16_t wPort);

    // The control socket; -1 without a control port.
    int Fd() const { return m_nSocket; }

    CCallback& OnRealTime() { return m_OnRealTime; }
    CCallback& OnLanguage() { return m_OnLanguage; }

    // Takes up what is there, as far as it is this call's turn to look. True when it looked.
    bool TakeUpIfDue();

    // Takes up at most 64 frames that are there and calls the callbacks. How many were valid; 0
    // also while another call is at it, or when called from a callback. Keeps errno.
    int TakeUp();

    // The value of real-time logging, after a look if it is time for one; 0: off.
    int Look();

    // 0, or a negative errno: -ENOTCONN without a control port, -EALREADY when it runs.
    [[nodiscard]] int StartThread();

private:
    static void* ThreadMain(void* pThis);
    void WaitForFrames();
    int StartQuietThread();
    void StopThread();

    bool TakeUpOne(int& nValid);
    void SetValue(int nValue);
    void Rest(bool bLooked);
    void Skip(unsigned int nCalls);

    unsigned int& m_nSkip;  // touched atomically, by the inline check of any thread too
    int m_nIndex = 0;
    int m_nSocket = -1;
    std::atomic<int> m_nValue = 0;
    CCallback m_OnRealTime;
    CCallback m_OnLanguage;

    std::atomic<bool> m_bTakingUp = false;       // one at a time, so that frames keep their order
    std::atomic<bool> m_bOthersLook = true;      // no control port, or the thread does it
    std::atomic<std::uint32_t> m_nLastLook = 0;  // ms of the coarse clock, wraps
    std::atomic<unsigned int> m_nLastSkip = 0;   // calls that the last look let pass

    std::atomic<bool> m_bThread = false;  // the thread runs, or is being started
    int m_nWake = -1;                     // becomes readable when the thread has to end
    pthread_t m_Thread{};
    pid_t m_nThreadPid = 0;  // process that has the thread; a forked child has none
};

}  // namespace tarvik
