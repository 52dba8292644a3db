// An engineer at the console who watches a log client.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "peers/Telnet.h"

class CConsoleClient {
public:
    // Connects to wPort on 127.0.0.1, logs in and has the records of log client nIndex shown.
    // Throws std::runtime_error when the console does not play along.
    CConsoleClient(std::uint16_t wPort, int nIndex);

    // The next line without its end, valid until the next call; nothing when none comes within
    // nTimeoutNs. Throws std::runtime_error when the connection has ended.
    std::optional<std::string_view> NextLine(std::int64_t nTimeoutNs);

private:
    bool Receive(std::int64_t nTimeoutNs);

    CTelnet m_Telnet;  // nothing is read ahead in it once the records come
    std::string m_strReceived;
    std::size_t m_nTaken = 0;  // bytes at its front that were handed out
};
