// The command link to the management agent. So far it is the thread without the link: it takes its
// messages and ends when it is told to; it opens no connection, and an answer that it is asked to
// send is dropped, as always while the link is down.
//
// Threads: main constructs the object; Run() is the command-link thread; Stop() is main's.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/ThreadMsg.h"

class CCmdThread {
public:
    CCmdThread() = default;
    virtual ~CCmdThread() = default;
    CCmdThread(const CCmdThread&) = delete;
    CCmdThread& operator=(const CCmdThread&) = delete;

    // The thread's body; returns 0 at a quit message or after Stop().
    int Run();

    // Ends Run() within about 100 ms, also when it has not begun yet. Returns 0.
    int Stop();

private:
    bool DrainPipe();
    void OnQueueMsg(std::uint32_t wParam);

    std::atomic<std::int32_t> m_bRun{1};
    CPipeReader m_PipeReader;
};
