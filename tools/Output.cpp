#include "tools/Output.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <system_error>

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

void EndQuietlyWithReader() {
    std::signal(SIGPIPE, SIG_DFL);
}

bool WantsColour() {
    const char* szNoColour = std::getenv("NO_COLOR");
    const char* szTerminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && (szNoColour == nullptr || *szNoColour == '\0') &&
           (szTerminal == nullptr || std::string_view(szTerminal) != "dumb");
}
