#include "core/ThreadMsg.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include "core/Progress.h"
#include "core/Trace.h"
#include "support/Socket.h"

int g_nCmdThreadID[2] = {};
int g_nLogRecvThreadID[2] = {};
int g_nMsgPipe[2] = {};
int g_nUploadThreadID[kUploadSlots][2] = {};

namespace {

bool MakePipe(int (&nEnds)[2]) {
    if (pipe2(nEnds, O_CLOEXEC) != 0) {
        nEnds[0] = nEnds[1] = 0;
        return false;
    }
    return FitsSelect(nEnds[0]) && FitsSelect(nEnds[1]);
}

bool MakeWorkerPipe(int (&nEnds)[2]) {
    return MakePipe(nEnds) && SetNonBlocking(nEnds[0]) == 0 && SetNonBlocking(nEnds[1]) == 0;
}

bool MakeConsolePipe() {
    if (!MakePipe(g_nMsgPipe)) {
        Trace("CreateMsgqueue failed to pipe g_nMsgPipe.\n", "CreateMsgqueue");
        return false;
    }
    static constexpr const char* kFailures[2][2] = {
        {"CreateMsgqueue failed to fcntl get g_nMsgPipe 0 .\n",
         "CreateMsgqueue failed to fcntl set g_nMsgPipe 0 .\n"},
        {"CreateMsgqueue failed to fcntl get g_nMsgPipe 1 .\n",
         "CreateMsgqueue failed to fcntl set g_nMsgPipe 1 .\n"},
    };
    for (int nEnd = 0; nEnd < 2; ++nEnd) {
        const int nFailedStep = SetNonBlocking(g_nMsgPipe[nEnd]);
        if (nFailedStep != 0) {
            Trace(kFailures[nEnd][nFailedStep - 1], "CreateMsgqueue");
            return false;
        }
    }
    return true;
}

}  // namespace

bool CreateMsgqueue() {
    if (!MakeWorkerPipe(g_nCmdThreadID)) {
        return false;
    }
    Progress("g_nCmdThreadID[0]:%d--g_nCmdThreadID[1]:%d\n", g_nCmdThreadID[0], g_nCmdThreadID[1]);
    if (!MakeWorkerPipe(g_nLogRecvThreadID)) {
        return false;
    }
    Progress("g_nLogRecvThreadID[0]:%d--g_nLogRecvThreadID[1]:%d\n", g_nLogRecvThreadID[0],
             g_nLogRecvThreadID[1]);
    for (auto& nEnds : g_nUploadThreadID) {
        if (!MakeWorkerPipe(nEnds)) {
            return false;
        }
    }
    return MakeConsolePipe();
}

bool PostPipeMsg(int nWriteEnd, std::int32_t nId, std::uint32_t wParam, std::uint32_t lParam) {
    const PipeMsg msg{nId, wParam, lParam};
    return write(nWriteEnd, &msg, sizeof(msg)) != -1;
}

bool PostPipeMsgs(int nWriteEnd, const PipeMsg* pMsgs, std::size_t nMsgs) {
    static_assert(kMaxMsgsAtOnce * sizeof(PipeMsg) <= PIPE_BUF);
    return write(nWriteEnd, pMsgs, nMsgs * sizeof(PipeMsg)) != -1;
}

bool CPipeReader::Next(int nReadEnd, PipeMsg& msg) {
    Read(nReadEnd, 1);
    if (m_nReceived < sizeof(PipeMsg)) {
        return false;
    }
    msg = MsgAt(0);
    Drop(1);
    return true;
}

// Fills up what is there to nMsgs messages, as far as the pipe has them. A pipe that gives less
// than it is asked for is empty.
void CPipeReader::Read(int nReadEnd, std::size_t nMsgs) {
    const ssize_t nRead =
        read(nReadEnd, m_byMsgs + m_nReceived, nMsgs * sizeof(PipeMsg) - m_nReceived);
    if (nRead > 0) {
        m_nReceived += static_cast<std::size_t>(nRead);
    }
}

PipeMsg CPipeReader::MsgAt(std::size_t nMsg) const {
    PipeMsg msg;
    std::memcpy(&msg, m_byMsgs + nMsg * sizeof(PipeMsg), sizeof(msg));
    return msg;
}

void CPipeReader::Drop(std::size_t nMsgs) {
    m_nReceived -= nMsgs * sizeof(PipeMsg);
    std::memmove(m_byMsgs, m_byMsgs + nMsgs * sizeof(PipeMsg), m_nReceived);
}
