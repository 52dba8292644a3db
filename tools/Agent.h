// The management agent as the service sees it: listens where the service connects to, answers its
// registration, sends history requests and receives the answers (link/CmdFrame.h has the layouts).
//
// Threads: an object belongs to one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <vector>

#include "core/Socket.h"
#include "link/CmdFrame.h"
#include "tools/PeerSocket.h"

struct AgentFrame {
    std::uint8_t byCommand = 0;
    PeerBytes payload;

    PeerBytes Encode() const;  // as on the wire
    bool operator==(const AgentFrame&) const = default;
};

// The request block: which receiver the service shall connect to, and what to tell it.
struct AgentRequest {
    std::uint32_t dwEcho = 0;             // comes back in the answer
    std::uint32_t dwAddress = kLoopback;  // of the receiver, 192.168.0.1 is 0xC0A80001
    std::uint16_t wPort = 0;              // of the receiver
    std::uint16_t wUnused = 0;            // behind the port; comes back in the answer
    std::uint32_t dwInfo1 = 0;            // these three go into UM_INFO
    std::uint32_t dwInfo2 = 0;
    std::array<std::uint8_t, kBlockInfo3Bytes> info3{};

    PeerBytes Encode() const;  // kRequestBlockBytes bytes
    bool operator==(const AgentRequest&) const = default;
};

// The answer to a history request.
struct AgentAnswer {
    std::uint32_t dwId = 0;
    AgentRequest request;  // as echoed
    std::uint32_t dwResult = 0;

    bool operator==(const AgentAnswer&) const = default;
};

// What the result of an answer means.
const char* AnswerText(std::uint32_t dwResult);

// Frames of the agent. The bytes that the service carries without reading are 0.
AgentFrame MakeRegisterAck(std::uint32_t dwAddress = 0, std::uint8_t byNode = 0,
                           std::uint32_t dwValue = kRegisterAckValue);
AgentFrame MakeParameters(std::uint32_t dwAddress, std::uint8_t byNode);
AgentFrame MakeHlogRequest(std::uint32_t dwId, const PeerBytes& block);
AgentFrame MakeHlogRequest(std::uint32_t dwId, const AgentRequest& request);

// Reads a CMD_ANSWER frame. Throws std::runtime_error, naming what is wrong, when it is none or one
// of the values that never change is another.
AgentAnswer DecodeAnswer(const AgentFrame& frame);

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
