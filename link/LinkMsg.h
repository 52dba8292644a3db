// Payloads that travel through the message queue between command link, intake and upload sessions
// (docs/architecture.md, "Messages"). Layout only; integers are little-endian, at any address.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "link/CmdFrame.h"
#include "support/LittleEndian.h"

// MSG_CT_MT_HLOG, a history request: 5 bytes of 0, the identifier, the length of the frame's
// payload, the payload.
constexpr std::size_t kHlogMsgIdOffset = 5;
constexpr std::size_t kHlogMsgLengthOffset = 9;
constexpr std::size_t kHlogMsgPayloadOffset = 13;
constexpr std::size_t kHlogMsgBlockLengthOffset = kHlogMsgPayloadOffset + kHlogBlockLengthOffset;
constexpr std::size_t kHlogMsgBlockOffset = kHlogMsgPayloadOffset + kHlogBlockOffset;
constexpr std::size_t kHlogMsgBytes = kHlogMsgBlockOffset + kRequestBlockBytes;
static_assert(kHlogMsgBlockLengthOffset == 38 && kHlogMsgBlockOffset == 42 && kHlogMsgBytes == 72);

// The message made of the nLen payload bytes, kHlogBlockOffset or more, of a request frame.
inline std::vector<std::uint8_t> MakeHlogMsg(const std::uint8_t* pPayload, std::size_t nLen) {
    std::vector<std::uint8_t> msg(kHlogMsgPayloadOffset + nLen);
    StoreLe32(&msg[kHlogMsgIdOffset], LoadLe32(pPayload + kHlogIdOffset));
    StoreLe32(&msg[kHlogMsgLengthOffset], static_cast<std::uint32_t>(nLen));
    std::memcpy(&msg[kHlogMsgPayloadOffset], pPayload, nLen);
    return msg;
}

// MSG_MT_CT_SEND, an answer to send: a byte of 0, the length of the rest, the frame's payload.
constexpr std::size_t kSendMsgLengthOffset = 1;
constexpr std::size_t kSendMsgPayloadOffset = 5;

using RequestBlock = std::array<std::uint8_t, kRequestBlockBytes>;

// The upload answer to the request with that identifier and block.
inline std::array<std::uint8_t, kSendMsgPayloadOffset + kAnswerBytes> MakeUploadAnswer(
    std::uint32_t dwRequestID, const RequestBlock& byRequest, std::uint32_t dwResult) {
    std::array<std::uint8_t, kSendMsgPayloadOffset + kAnswerBytes> msg{};
    StoreLe32(&msg[kSendMsgLengthOffset], kAnswerBytes);
    std::uint8_t* const pAnswer = &msg[kSendMsgPayloadOffset];
    StoreLe32(pAnswer + kAnswerIdOffset, dwRequestID);
    StoreLe32(pAnswer + kAnswerEchoOffset, LoadLe32(&byRequest[kBlockEchoOffset]));
    StoreLe32(pAnswer + kAnswerLengthOffset, kAnswerLengthValue);
    pAnswer[kAnswerTagOffset] = kAnswerTagValue;
    StoreLe32(pAnswer + kAnswerBlockLengthOffset, kRequestBlockBytes);
    StoreLe16(pAnswer + kAnswerCommandOffset, kAnswerCommand);
    std::memcpy(pAnswer + kAnswerBlockOffset, &byRequest[kBlockAddressOffset],
                kRequestBlockBytes - kBlockAddressOffset);
    StoreLe32(pAnswer + kAnswerResultOffset, dwResult);
    return msg;
}

// MSG_UT_MT_QUIT, the end notice of a session: its reason, its slot, 8 bytes of 0.
constexpr std::size_t kQuitReasonOffset = 0;
constexpr std::size_t kQuitSlotOffset = 1;  // 32 bits
constexpr std::size_t kQuitMsgBytes = 13;

// Why a session ended.
constexpr std::uint8_t UPLOAD_END_SERVED = 0;         // after a completed handshake
constexpr std::uint8_t UPLOAD_END_NO_SOCKET = 1;      // not made, not set up or not bound
constexpr std::uint8_t UPLOAD_END_NO_CONNECT = 2;     // refused, failed or timed out
constexpr std::uint8_t UPLOAD_END_HELLO_REFUSED = 3;  // or the receiver's version is too low
constexpr std::uint8_t UPLOAD_END_INFO_REFUSED = 4;
constexpr std::uint8_t UPLOAD_END_NO_HANDSHAKE = 5;  // the connection ended before it was complete
