#include "logstore/Led.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include "support/SystemPath.h"

bool CLed::Open() {
    m_Device.Reset(open(SystemPath("/dev/tarvik/TarvikLed").c_str(),
                        O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    return m_Device.IsOpen();
}

void CLed::Signal() {
    if (!m_Device.IsOpen()) {
        return;
    }
    const std::int32_t nOn = 1;
    // A light that misses a signal must not disturb the intake, so the result is of no interest.
    [[maybe_unused]] const ssize_t nWritten = write(m_Device.Get(), &nOn, sizeof(nOn));
}
