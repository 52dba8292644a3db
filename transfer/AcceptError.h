// What an error of accepting a connection means.
#pragma once

#include <cerrno>
#include <system_error>

// True when it passes once something else has ended: descriptors or memory are used up. Any other
// error is that of the one peer, and the next can be taken at once. The value of error is an errno;
// its category is not always one that std::errc can be compared with.
inline bool IsShortage(const std::error_code& error) {
    const int nError = error.value();
    return nError == EMFILE || nError == ENFILE || nError == ENOBUFS || nError == ENOMEM;
}
