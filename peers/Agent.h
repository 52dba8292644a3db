// The management agent as the service sees it: listens where the service connects to, answers its
// registration, sends history requests and receives the answers.
//
// Threads: an object belongs to one thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "peers/PeerSocket.h"
#include "transfer/AgentFrame.h"

class CAgent {
public:
    // Listens on wPort of 127.0.0.1; 0: one that the kernel picks. Throws std::system_error.
    explicit CAgent(std::uint16_t wPort = 0) : m_Listener(wPort) {}

    std::uint16_t Port() const { return m_Listener.Port(); }
    void StopListening() { m_Listener.StopListening(); }  // an accepted connection stays
    void Listen() { m_Listener.Listen(); }                // again, on the same port

    // Takes the service's next connection and closes the one before. False when none comes within
    // nLimitMs.
    [[nodiscard]] bool Accept(int nLimitMs = kPeerLimitMs);

    // Accepts a connection unless there is one, awaits the register frame and answers it. Throws
    // std::runtime_error when another frame or none comes. After the service has ended a connection
    // the next one is taken by Accept.
    void Register(std::uint32_t dwAddress = 0, std::uint8_t byNode = 0,
                  int nLimitMs = kPeerLimitMs);

    // Send a frame, or several with one write. Throw std::system_error as CPeerSocket does.
    void Send(const AgentFrame& frame) { m_Connection.Send(frame.Encode()); }
    void Send(const std::vector<AgentFrame>& frames);

    // The next frame, keep-alives included; nullopt: End() tells why.
    std::optional<AgentFrame> Receive(int nLimitMs = kPeerLimitMs);

    // The next answer; keep-alives in front of it are counted and dropped. nullopt: End() tells
    // why. Throws std::runtime_error for any other frame, and as DecodeAnswer does.
    std::optional<AgentAnswer> ReceiveAnswer(int nLimitMs = kPeerLimitMs);

    PeerEnd End() const { return m_Connection.End(); }  // of the last receiving

    // Reads and drops frames and all else until the service ends the connection.
    PeerEnd AwaitEnd(int nLimitMs = kPeerLimitMs) { return m_Connection.AwaitEnd(nLimitMs); }

    // Keep-alives that the Receive calls have seen, over all connections.
    int KeepAlives() const { return m_nKeepAlives; }

    // For raw and byte-by-byte sending, closing and resetting.
    CPeerSocket& Connection() { return m_Connection; }

private:
    CPeerListener m_Listener;
    CPeerSocket m_Connection;
    int m_nKeepAlives = 0;
};
