// What the management agent and the service say to each other, as the agent reads and writes it
// (link/CmdFrame.h has the layouts). No socket: whoever has one hands over whole frames.
#pragma once

#include <array>
#include <cstdint>

#include "link/CmdFrame.h"
#include "support/Socket.h"
#include "transfer/FrameBytes.h"

struct AgentFrame {
    std::uint8_t byCommand = 0;
    FrameBytes payload;

    FrameBytes Encode() const;  // as on the wire
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

    FrameBytes Encode() const;  // kRequestBlockBytes bytes
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
AgentFrame MakeHlogRequest(std::uint32_t dwId, const FrameBytes& block);
AgentFrame MakeHlogRequest(std::uint32_t dwId, const AgentRequest& request);

// Throws std::runtime_error, naming what is wrong, when the frame is no registration.
void ExpectRegistration(const AgentFrame& frame);

// Reads a CMD_ANSWER frame. Throws std::runtime_error, naming what is wrong, when it is none or one
// of the values that never change is another.
AgentAnswer DecodeAnswer(const AgentFrame& frame);
