#include "reading/Output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

void COutput::Flush() {
    std::size_t nDone = 0;
    while (nDone < m_Buffer.size()) {
        const ssize_t nBytes =
            write(STDOUT_FILENO, m_Buffer.data() + nDone, m_Buffer.size() - nDone);
        if (nBytes < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "standard output");
        }
        nDone += nBytes > 0 ? static_cast<std::size_t>(nBytes) : 0;
    }
    m_Buffer.clear();
}

void SayError(const std::string& strLine) {
    std::fputs((strLine + "\n").c_str(), stderr);
}

void HoldStandardDescriptors() {
    // In this order: open gives the lowest one that is free.
    constexpr std::pair<int, int> kDescriptors[] = {
        {STDIN_FILENO, O_WRONLY}, {STDOUT_FILENO, O_RDONLY}, {STDERR_FILENO, O_WRONLY}};
    for (const auto& [nDescriptor, nFlags] : kDescriptors) {
        if (fcntl(nDescriptor, F_GETFD) < 0 && open("/dev/null", nFlags) < 0) {
            throw std::system_error(errno, std::generic_category(), "/dev/null");
        }
    }
}

void EndQuietlyWithReader() {
    std::signal(SIGPIPE, SIG_DFL);
}

bool WantsColour() {
    const char* szNoColour = std::getenv("NO_COLOR");
    const char* szTerminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (szNoColour == nullptr || *szNoColour == '\0') &&
           (szTerminal == nullptr || std::string_view(szTerminal) != "dumb");
}
