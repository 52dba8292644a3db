// The frame of the command link between the service and the management agent (docs/protocols.md,
// "Command link"), and the history request and its answer that travel in it. Layout only. Integers
// are unsigned and little-endian, at any address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/LittleEndian.h"

// A frame: lead byte, payload length (32-bit), command (one byte), payload.
constexpr std::uint8_t CMD_LEAD_BYTE = 0xFE;
constexpr std::size_t kCmdLengthOffset = 1;
constexpr std::size_t kCmdCommandOffset = 5;
constexpr std::size_t kCmdHeadBytes = 6;
constexpr std::size_t kCmdMaxPayloadBytes = 200;
constexpr std::size_t kCmdMaxFrameBytes = kCmdHeadBytes + kCmdMaxPayloadBytes;

// Commands from the service.
constexpr std::uint8_t CMD_REGISTER = 0x01;    // payload: kRegisterValue
constexpr std::uint8_t CMD_KEEP_ALIVE = 0x32;  // no payload
constexpr std::uint8_t CMD_ANSWER = 0x34;      // payload: an upload answer

// Commands from the agent.
constexpr std::uint8_t CMD_REGISTER_ACK = 0x02;
constexpr std::uint8_t CMD_PARAMETERS = 0x40;
constexpr std::uint8_t CMD_HLOG_REQUEST = 0x43;

constexpr std::uint32_t kRegisterValue = 18;
constexpr std::uint32_t kRegisterAckValue = 17;

// Payloads of the agent; offsets count from the payload's first byte. What is not named here is
// carried without being read.
constexpr std::size_t kRegisterAckBytes = 45;
constexpr std::size_t kRegisterAckAddressOffset = 40;  // 32 bits, 10.0.0.1 is 0x0A000001
constexpr std::size_t kRegisterAckNodeOffset = 44;     // 1 byte
constexpr std::size_t kParametersBytes = 41;
constexpr std::size_t kParametersAddressOffset = 36;
constexpr std::size_t kParametersNodeOffset = 40;
constexpr std::size_t kHlogIdOffset = 0;            // 32 bits, comes back in the answer
constexpr std::size_t kHlogBlockLengthOffset = 25;  // 32 bits
constexpr std::size_t kHlogBlockOffset = 29;        // that many bytes to the end

// The request block: who is to be served.
constexpr std::size_t kRequestBlockBytes = 30;
constexpr std::uint16_t kRequestBlockCommand = 3;
constexpr std::size_t kBlockCommandOffset = 0;  // 16 bits, kRequestBlockCommand
constexpr std::size_t kBlockEchoOffset = 2;     // 32 bits, echoed in the answer
constexpr std::size_t kBlockAddressOffset = 6;  // 32 bits, 192.168.0.1 is 0xC0A80001
constexpr std::size_t kBlockPortOffset = 10;    // 16 bits
constexpr std::size_t kBlockInfo1Offset = 14;   // 32 bits, comes back in UM_INFO
constexpr std::size_t kBlockInfo2Offset = 18;   // 32 bits, the same
constexpr std::size_t kBlockInfo3Offset = 22;   // 8 bytes, the same
constexpr std::size_t kBlockInfo3Bytes = 8;

// The upload answer, payload of CMD_ANSWER.
constexpr std::size_t kAnswerBytes = 47;
constexpr std::size_t kAnswerIdOffset = 0;            // 32 bits, of the request
constexpr std::size_t kAnswerEchoOffset = 4;          // 32 bits, of the request block
constexpr std::size_t kAnswerLengthOffset = 8;        // 32 bits, 23
constexpr std::size_t kAnswerTagOffset = 12;          // 1 byte, 3
constexpr std::size_t kAnswerBlockLengthOffset = 13;  // 32 bits, kRequestBlockBytes
constexpr std::size_t kAnswerCommandOffset = 17;      // 16 bits, kAnswerCommand
constexpr std::size_t kAnswerBlockOffset = 19;        // request block from kBlockAddressOffset on
constexpr std::size_t kAnswerResultOffset = 43;       // 32 bits
constexpr std::uint32_t kAnswerLengthValue = 23;
constexpr std::uint8_t kAnswerTagValue = 3;
constexpr std::uint16_t kAnswerCommand = 4;
static_assert(kAnswerBlockOffset + kRequestBlockBytes - kBlockAddressOffset == kAnswerResultOffset);

// A whole frame around the nLen payload bytes at pPayload, 0 to kCmdMaxPayloadBytes for a peer to
// accept it.
inline std::vector<std::uint8_t> MakeCmdFrame(std::uint8_t byCommand,
                                              const void* pPayload = nullptr,
                                              std::size_t nLen = 0) {
    std::vector<std::uint8_t> frame(kCmdHeadBytes + nLen);
    frame[0] = CMD_LEAD_BYTE;
    StoreLe32(&frame[kCmdLengthOffset], static_cast<std::uint32_t>(nLen));
    frame[kCmdCommandOffset] = byCommand;
    if (nLen > 0) {
        std::memcpy(frame.data() + kCmdHeadBytes, pPayload, nLen);
    }
    return frame;
}
