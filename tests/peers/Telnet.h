// An engineer's telnet client, as far as bytes go: connects, types, reads.
#pragma once

#include <cstdint>
#include <string>

#include "core/UniqueFd.h"

class CTelnet {
public:
    // Connects to wPort of 127.0.0.1. nReceiveBuffer: bytes that the kernel keeps for us, about; 0:
    // its own choice. Throws std::system_error when that fails.
    explicit CTelnet(std::uint16_t wPort, int nReceiveBuffer = 0);

    // Sends the bytes as one segment. Throws std::system_error when the connection is gone.
    void Send(const std::string& strBytes);

    // The next nLen bytes, or fewer when the stream ends or nothing comes for 10 s.
    std::string Read(std::size_t nLen);
    // The bytes up to and with strEnd; fewer as above.
    std::string ReadUntil(const std::string& strEnd);
    // All bytes up to the end of the stream, then "<end>", or "<reset>" or "<silence>" as it comes.
    std::string ReadToEnd();

    // Reads the welcome, types the password, reads the help text. The welcome.
    std::string LogIn();

    // Ends the connection.
    void Close() { m_Socket.Reset(); }

private:
    const char* ReadPiece(std::string& strTo, std::size_t nMax);  // null, or how it ended

    CUniqueFd m_Socket;
    std::string m_strAhead;  // read from the socket and not asked for yet
};
