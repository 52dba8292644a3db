// Standard output through a large buffer.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <string>

class COutput {
public:
    // Text goes here.
    fmt::memory_buffer& Buffer() { return m_Buffer; }

    // To be called now and then: writes the buffer out once it is large. Both throw
    // std::system_error when that fails.
    void Spill() {
        if (m_Buffer.size() >= kSpillBytes) {
            Flush();
        }
    }
    void Flush();

private:
    static constexpr std::size_t kSpillBytes = 65536;

    fmt::memory_buffer m_Buffer;
};

// A line on standard error. That nobody can hear it is no reason to stop.
void SayError(const std::string& strLine);

// To be called first. A standard descriptor that is closed would be given to the next file or
// socket, which would then be taken for standard input or written to: this gives it to one that
// can be neither read nor, but for standard error, written.
void HoldStandardDescriptors();

// Lets the end of a reader of standard output, such as head, end this program quietly, even when
// its parent had taken no notice of SIGPIPE.
void EndQuietlyWithReader();

// Whether standard output is a terminal that may get colours: NO_COLOR is not set.
bool WantsColour();
