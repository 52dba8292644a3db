// A non-blocking pipe with both ends in one hand.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "core/ThreadMsg.h"
#include "support/UniqueFd.h"

class CTestPipe {
public:
    CTestPipe() {
        int nEnds[2] = {-1, -1};
        EXPECT_EQ(pipe2(nEnds, O_NONBLOCK), 0);
        EXPECT_EQ(fcntl(nEnds[1], F_SETPIPE_SZ, 4096), 4096);  // so that it gets full
        m_fdRead.Reset(nEnds[0]);
        m_fdWrite.Reset(nEnds[1]);
    }
    int ReadEnd() const { return m_fdRead.Get(); }
    int WriteEnd() const { return m_fdWrite.Get(); }

    // Everything that waits in the pipe.
    std::vector<PipeMsg> Drain() {
        std::vector<PipeMsg> msgs;
        for (PipeMsg msg{}; m_reader.Next(ReadEnd(), msg);) {
            msgs.push_back(msg);
        }
        return msgs;
    }

    void Fill() const {
        while (PostPipeMsg(WriteEnd(), LOG_THREAD_DATA_ARRIVED)) {
        }
    }

private:
    CUniqueFd m_fdRead;
    CUniqueFd m_fdWrite;
    CPipeReader m_reader;
};

inline bool operator==(const PipeMsg& a, const PipeMsg& b) {
    return a.id == b.id && a.wParam == b.wParam && a.lParam == b.lParam;
}
