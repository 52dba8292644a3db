// The sleep of a thread that has nothing to do for a known time, unless somebody gives it
// something.
//
// Threads: one sleeps; any may wake it. Open() comes before both.
#pragma once

#include <cstdint>

#include "support/UniqueFd.h"

class CSleeper {
public:
    // Makes the pipe that a waker writes to; does nothing when it is there. False: it cannot be
    // made.
    [[nodiscard]] bool Open();

    // Returns after nMs milliseconds, 0 to 2 147 483 647, of time that really elapses, whatever
    // happens to the wall clock; or when Wake() is called, or was called since the last return; or
    // when the thread takes a signal.
    void Sleep(std::int64_t nMs);

    void Wake();  // without Open() there is nobody to wake

private:
    CUniqueFd m_fdRead;
    CUniqueFd m_fdWrite;
};
