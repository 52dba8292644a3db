// What a program found wrong and went on: said on standard error at once, and remembered for the
// exit status.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>

#include "reading/Output.h"

class CComplaints {
public:
    // strProgram: stands in front of every line.
    explicit CComplaints(std::string strProgram) : m_strProgram(std::move(strProgram)) {}

    void Say(const std::string& strText) {
        SayError(fmt::format("{}: {}", m_strProgram, strText));
        m_bAny = true;
    }

    int ExitStatus() const { return m_bAny ? 1 : 0; }

private:
    std::string m_strProgram;
    bool m_bAny = false;
};
