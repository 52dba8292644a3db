// A program of the appliance that logs: sends records, receives control frames.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "console/LogcCtrlFrame.h"
#include "logstore/LogRecord.h"
#include "support/UniqueFd.h"

// A record stamped with the local time of now. A text longer than its field fills it without a NUL.
LogRecord MakeRecord(std::int32_t nIndex, std::int32_t nType, const std::string& strText);

class CLogClient {
public:
    // wServicePort: the service's UDP port on 127.0.0.1. wControlPort: where control frames are
    // awaited; 0: on no port. Throws std::system_error when a socket cannot be had.
    explicit CLogClient(std::uint16_t wServicePort, std::uint16_t wControlPort = 0);

    // Sends one datagram. Throws std::system_error when it cannot be sent whole.
    void Send(const LogRecord& record) { SendBytes(&record, sizeof(record)); }
    void SendBytes(const void* pData, std::size_t nLen);

    // The next control frame, if one comes within nTimeoutMs.
    std::optional<LogcCtrlFrame> ReceiveControl(int nTimeoutMs);

private:
    CUniqueFd m_Socket;   // connected to the service
    CUniqueFd m_Control;  // bound to the control port
};
