#include "link/CmdThread.h"

#include <cerrno>

#include "core/MsgQueue.h"
#include "core/Process.h"
#include "core/Socket.h"
#include "core/Trace.h"

int CCmdThread::Run() {
    while (m_bRun != 0) {
        fd_set setReady;
        FD_ZERO(&setReady);
        FD_SET(g_nCmdThreadID[0], &setReady);
        const int nReady = WaitForEvents(g_nCmdThreadID[0], &setReady, nullptr);
        if (nReady == -1 && errno != EINTR) {
            Trace("CCmdThread::Run select failed\n");
            EndProcess(1);
        }
        if (nReady > 0 && !DrainPipe()) {
            return 0;
        }
    }
    return 0;
}

int CCmdThread::Stop() {
    m_bRun = 0;
    return 0;
}

// Handles every message in the pipe. False when the run has to end.
bool CCmdThread::DrainPipe() {
    PipeMsg msg;
    while (m_PipeReader.Next(g_nCmdThreadID[0], msg)) {
        if (msg.id == LOG_THREAD_QUIT) {
            return false;
        }
        if (msg.id == MSG_QUEUE_ARRIVED) {
            OnQueueMsg(msg.wParam);
        }
    }
    return true;
}

// The message is consumed, so that its queue slot is free again.
void CCmdThread::OnQueueMsg(std::uint32_t wParam) {
    g_MsgQueue.FreeMsg(static_cast<std::int32_t>(wParam));
}
