#include "support/Sleeper.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

bool CSleeper::Open() {
    if (m_fdRead.IsOpen()) {
        return true;
    }
    int nEnds[2];
    if (pipe2(nEnds, O_NONBLOCK | O_CLOEXEC) != 0) {
        return false;
    }
    m_fdRead.Reset(nEnds[0]);
    m_fdWrite.Reset(nEnds[1]);
    return true;
}

void CSleeper::Sleep(std::int64_t nMs) {
    pollfd wait{m_fdRead.Get(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(nMs)) > 0) {
        char szWakes[64];
        while (read(m_fdRead.Get(), szWakes, sizeof(szWakes)) == sizeof(szWakes)) {
        }
    }
}

void CSleeper::Wake() {
    if (m_fdWrite.IsOpen()) {
        // A pipe that is full wakes as well.
        [[maybe_unused]] const ssize_t nWritten = write(m_fdWrite.Get(), "", 1);
    }
}
