// A non-blocking pipe with both ends in one hand.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "core/ThreadMsg.h"
#include "core/UniqueFd.h"

class CTestPipe {
public:
    CTestPipe() {
        int nEnds[2];
        if (pipe2(nEnds, O_NONBLOCK | O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
        m_fdRead.Reset(nEnds[0]);
        m_fdWrite.Reset(nEnds[1]);
    }

    int ReadEnd() const { return m_fdRead.Get(); }
    int WriteEnd() const { return m_fdWrite.Get(); }
    void CloseWriteEnd() { m_fdWrite.Reset(); }

    bool Next(PipeMsg& msg) { return m_reader.Next(ReadEnd(), msg); }

    // Everything that waits in the pipe.
    std::vector<PipeMsg> Drain() {
        std::vector<PipeMsg> msgs;
        for (PipeMsg msg{}; Next(msg);) {
            msgs.push_back(msg);
        }
        return msgs;
    }

    // Writes messages until no more fits; wParam counts them from 0. Returns their number.
    std::uint32_t Fill() {
        std::uint32_t nWritten = 0;
        while (PostPipeMsg(WriteEnd(), LOG_THREAD_DATA_ARRIVED, nWritten)) {
            ++nWritten;
        }
        return nWritten;
    }

private:
    CUniqueFd m_fdRead;
    CUniqueFd m_fdWrite;
    CPipeReader m_reader;
};

inline bool operator==(const PipeMsg& a, const PipeMsg& b) {
    return a.id == b.id && a.wParam == b.wParam && a.lParam == b.lParam;
}
