// An engineer's telnet client, as far as bytes go: connects, types, reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/UniqueFd.h"

class CTelnet {
public:
    // Connects to wPort of 127.0.0.1. nReceiveBuffer: bytes that the kernel keeps for us, about; 0:
    // its own choice. Throws std::system_error when that fails.
    explicit CTelnet(std::uint16_t wPort, int nReceiveBuffer = 0);

    // Sends the bytes as one segment. Throws std::system_error when the connection is gone.
    void Send(const std::string& strBytes);

    // The next nLen bytes, or fewer when the stream ends or nothing comes for 10 s.
    std::string Read(std::size_t nLen);
    // The bytes up to and with strEnd, which is not empty; fewer as above.
    std::string ReadUntil(const std::string& strEnd);
    // All bytes up to the end of the stream, then "<end>", or "<reset>" or "<silence>" as it comes.
    std::string ReadToEnd();

    // Reads the welcome, types the password, reads the help text, which must not end after a row of
    // four log clients. The welcome.
    std::string LogIn();

    // The connection, to wait for or to read from directly; -1 once closed. Bytes that the calls
    // above have read ahead of what they returned come from those calls only.
    int Socket() const { return m_Socket.Get(); }

    // Ends the connection.
    void Close() { m_Socket.Reset(); }

private:
    const char* Receive();               // null, or how the stream ended
    std::string Take(std::size_t nMax);  // what was received and not returned yet
    std::size_t Ahead() const { return m_strReceived.size() - m_nTaken; }

    CUniqueFd m_Socket;
    std::string m_strReceived;
    std::size_t m_nTaken = 0;  // bytes at its front that were returned
};
