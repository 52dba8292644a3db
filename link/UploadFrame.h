// The frame of a history upload between a session of the service and its receiver
// (docs/protocols.md, "History upload"), and the messages that travel in it. Layout and scrambling
// only. Integers are unsigned and little-endian, at any address.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "support/LittleEndian.h"

// A frame: lead byte, length of the whole frame (32-bit), scrambled payload. The payload: message
// code (16-bit), its complement (16-bit), length of the payload (32-bit), body.
constexpr std::uint8_t UM_LEAD_BYTE = 0xF1;
constexpr std::uint8_t kScrambleKey = 0xC3;
constexpr std::size_t kUmLengthOffset = 1;
constexpr std::size_t kUmFrameHeadBytes = 5;
constexpr std::size_t kUmMinFrameBytes = 13;   // of a frame to the service
constexpr std::size_t kUmMaxFrameBytes = 600;  // the same; the service itself is not bound to it

// Offsets in the payload.
constexpr std::size_t kUmCodeOffset = 0;
constexpr std::size_t kUmCheckOffset = 2;
constexpr std::size_t kUmPayloadLengthOffset = 4;
constexpr std::size_t kUmBodyOffset = 8;

// Message codes. The numbers behind them are payload lengths.
constexpr std::uint16_t UM_HELLO = 257;         // 12, to the receiver
constexpr std::uint16_t UM_HELLO_ACK = 258;     // 13, from the receiver
constexpr std::uint16_t UM_INFO = 259;          // 30, to
constexpr std::uint16_t UM_INFO_ACK = 260;      // 9, from
constexpr std::uint16_t UM_GET_HLOG = 261;      // 113, from
constexpr std::uint16_t UM_GET_HLOG_ACK = 262;  // 13, to; result 0: the file's bytes follow, bare
constexpr std::uint16_t UM_CANCEL = 273;        // 12, from
constexpr std::uint16_t UM_CANCEL_ACK = 274;    // 42, to
constexpr std::uint16_t UM_SUBSCRIBE = 277;     // 408, from
constexpr std::uint16_t UM_RTLOG = 278;         // 8 and the record's bytes, to
constexpr std::uint16_t UM_SET_LANGUAGE = 279;  // 9, from
constexpr std::uint16_t UM_REBOOT = 280;        // 8, from

constexpr std::size_t kHelloBytes = 12;
constexpr std::size_t kHelloVersionOffset = 8;  // 32 bits
constexpr std::uint32_t kProtocolVersion = 0x20060111;

constexpr std::size_t kHelloAckBytes = 13;
constexpr std::size_t kHelloAckAcceptOffset = 8;   // 1 byte: kHelloAccepted or kHelloRefused
constexpr std::size_t kHelloAckVersionOffset = 9;  // 32 bits
constexpr std::uint8_t kHelloAccepted = 1;
constexpr std::uint8_t kHelloRefused = 0;
constexpr std::uint32_t kLowestReceiverVersion = 0x1F000000;

constexpr std::size_t kInfoBytes = 30;
constexpr std::size_t kInfo1Offset = 8;          // 32 bits, from the request block
constexpr std::size_t kInfo2Offset = 12;         // 32 bits, the same
constexpr std::size_t kInfo3Offset = 16;         // 8 bytes, the same
constexpr std::size_t kInfoNodeOffset = 24;      // 1 byte, from the agent
constexpr std::size_t kInfoLanguageOffset = 25;  // 1 byte
constexpr std::size_t kInfoValueOffset = 26;     // 32 bits, kInfoValue
constexpr std::uint32_t kInfoValue = 10239;

constexpr std::size_t kInfoAckBytes = 9;
constexpr std::size_t kInfoAckOffset = 8;  // 1 byte: kInfoAccepted or kInfoRefused
constexpr std::uint8_t kInfoAccepted = 0;
constexpr std::uint8_t kInfoRefused = 1;

constexpr std::size_t kGetHlogBytes = 113;
constexpr std::size_t kGetHlogNameOffset = 9;  // 100 bytes, ends at a NUL
constexpr std::size_t kGetHlogNameBytes = 100;
constexpr std::size_t kGetHlogStartOffset = 109;  // 32 bits

constexpr std::size_t kGetHlogAckBytes = 13;
constexpr std::size_t kGetHlogAckSizeOffset = 8;     // 32 bits, counts with result 0
constexpr std::size_t kGetHlogAckResultOffset = 12;  // 1 byte, one of these:
constexpr std::uint8_t kGetHlogFound = 0;
constexpr std::uint8_t kGetHlogNotFound = 1;   // or empty, or not readable as a file
constexpr std::uint8_t kGetHlogBeyondEnd = 2;  // the start is not below the size
constexpr std::uint8_t kGetHlogNotOpened = 3;

constexpr std::size_t kCancelBytes = 12;
constexpr std::size_t kCancelValueOffset = 8;  // 32 bits, comes back in the answer
constexpr std::size_t kCancelAckBytes = 42;
constexpr std::size_t kCancelAckTextOffset = 12;  // 30 bytes, filled with NULs
constexpr char kCancelAckText[] = "Canceld of get history log";

constexpr std::size_t kSubscribeBytes = 408;
constexpr std::size_t kSubscribeTableOffset = 8;  // byte 4 * client + type is 1: wanted
constexpr std::size_t kSubscribeClients = 100;    // 0 to 99
constexpr std::size_t kSubscribeTypes = 4;        // 0 to 3
constexpr std::size_t kSubscribeTableBytes = kSubscribeClients * kSubscribeTypes;

constexpr std::size_t kSetLanguageBytes = 9;
constexpr std::size_t kSetLanguageOffset = 8;  // 1 byte

constexpr std::size_t kRebootBytes = 8;

// Scrambles nLen payload bytes in place; done twice it gives them back.
inline void Scramble(std::uint8_t* pPayload, std::size_t nLen) {
    for (std::size_t n = 0; n < nLen; ++n) {
        pPayload[n] ^= kScrambleKey;
    }
}

// Writes a whole frame to pFrame, kUmFrameHeadBytes + kUmBodyOffset + nLen bytes: scrambled, around
// a message with code wCode and the nLen body bytes at pBody.
inline void EncodeUploadFrame(std::uint8_t* pFrame, std::uint16_t wCode, const void* pBody,
                              std::size_t nLen) {
    const std::size_t nPayload = kUmBodyOffset + nLen;
    pFrame[0] = UM_LEAD_BYTE;
    StoreLe32(pFrame + kUmLengthOffset, static_cast<std::uint32_t>(kUmFrameHeadBytes + nPayload));
    std::uint8_t* const pPayload = pFrame + kUmFrameHeadBytes;
    StoreLe16(pPayload + kUmCodeOffset, wCode);
    StoreLe16(pPayload + kUmCheckOffset, static_cast<std::uint16_t>(~wCode));
    StoreLe32(pPayload + kUmPayloadLengthOffset, static_cast<std::uint32_t>(nPayload));
    if (nLen > 0) {
        std::memcpy(pPayload + kUmBodyOffset, pBody, nLen);
    }
    Scramble(pPayload, nPayload);
}

// The same in bytes of its own.
inline std::vector<std::uint8_t> MakeUploadFrame(std::uint16_t wCode, const void* pBody = nullptr,
                                                 std::size_t nLen = 0) {
    std::vector<std::uint8_t> frame(kUmFrameHeadBytes + kUmBodyOffset + nLen);
    EncodeUploadFrame(frame.data(), wCode, pBody, nLen);
    return frame;
}

// Unscrambles the payload, nLen bytes, kUmBodyOffset or more, of a received frame in place. True
// when its check is the complement of its code and it states its own length.
inline bool OpenUploadPayload(std::uint8_t* pPayload, std::size_t nLen) {
    Scramble(pPayload, nLen);
    const std::uint16_t wCode = LoadLe16(pPayload + kUmCodeOffset);
    return LoadLe16(pPayload + kUmCheckOffset) == static_cast<std::uint16_t>(~wCode) &&
           LoadLe32(pPayload + kUmPayloadLengthOffset) == nLen;
}
