// The appliance's LED: a character device that is told of records of some types. The platform part
// of the intake; a machine without it loses nothing but the light.
//
// Threads: belongs to the intake thread.
#pragma once

#include "support/UniqueFd.h"

class CLed {
public:
    // Opens the device write-only. False when there is none. A device that is not ready for a
    // signal never holds its caller up: it misses that signal.
    [[nodiscard]] bool Open();

    // Writes the integer 1, four bytes in host byte order; nothing when the device is not open.
    void Signal();

    void Close() { m_Device.Reset(); }

private:
    CUniqueFd m_Device;
};
