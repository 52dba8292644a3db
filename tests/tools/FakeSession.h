// A session of a service as a receiver sees it, many at a time: connects, makes itself known,
// serves one file as far as it is allowed to.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Buff.h"
#include "core/UniqueFd.h"
#include "tools/UploadMessage.h"

FrameBytes MakeHello(std::uint32_t dwVersion = kProtocolVersion);

class CFakeSession {
public:
    // Connects from strAddress, one of 127.0.0.0/8, to wPort of 127.0.0.1. The file that it serves
    // under any name is content, which lives as long as this. first: what it begins with.
    CFakeSession(std::uint16_t wPort, const std::string& strAddress, std::string_view content,
                 const FrameBytes& first = MakeHello());

    // Takes what has come and sends what can be sent, without waiting.
    void Serve();

    // Serves all until the condition holds. False: it does not within nLimitMs.
    static bool ServeUntil(std::deque<CFakeSession>& sessions,
                           const std::function<bool()>& condition, int nLimitMs = 60000);

    void Allow(std::size_t nBytes) {
        m_nAllowed = nBytes;
    }  // up to there the file is sent; 0 at first
    void Send(const FrameBytes& frame) { m_strQueued.append(frame.begin(), frame.end()); }
    void Close() { m_Socket.Reset(); }

    const std::vector<std::uint16_t>& Codes() const { return m_Codes; }    // that came
    const std::vector<std::uint32_t>& Starts() const { return m_Starts; }  // asked for
    bool IsEnded() const { return m_bEnded; }                              // by the receiver

private:
    void Receive();
    void Answer(const UploadMessage& message);
    void SendSome(const char* pBytes, std::size_t nLen, std::size_t& nDone);

    std::string_view m_Content;
    CUniqueFd m_Socket;  // non-blocking
    CBuff m_Ring;
    std::string m_strQueued;
    std::size_t m_nAllowed = 0;
    std::size_t m_nFile = std::string::npos;  // next byte of the file; npos: none is under way
    std::vector<std::uint16_t> m_Codes;
    std::vector<std::uint32_t> m_Starts;
    bool m_bEnded = false;
};
