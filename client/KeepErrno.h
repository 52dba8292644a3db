// Leaves errno as it was: logging must not disturb the error that is being logged.
#pragma once

#include <cerrno>

namespace tarvik {

class CKeepErrno {
public:
    CKeepErrno() : m_nErrno(errno) {}
    ~CKeepErrno() { errno = m_nErrno; }
    CKeepErrno(const CKeepErrno&) = delete;
    CKeepErrno& operator=(const CKeepErrno&) = delete;

private:
    int m_nErrno;
};

}  // namespace tarvik
