// The control frame: one UDP datagram with which the service steers a log client
// (docs/protocols.md, "Control frame"). Layout and constants only. Integers are little-endian, as
// the processor has them.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint32_t LOGC_CTRL_MAGIC = 0x26581947;

constexpr std::uint32_t LOGC_CMD_REALTIME = 4;  // dwParam1: index again; dwParam2: value, 0 for off
constexpr std::uint32_t LOGC_CMD_LANGUAGE = 10;  // dwParam1: language; no dwParam2

constexpr std::int32_t kMaxRealTimeValue = 65535;

constexpr std::uint32_t LANGUAGE_CHINESE = 0;
constexpr std::uint32_t LANGUAGE_ENGLISH = 1;

struct LogcCtrlFrame {
    std::uint32_t dwMagic;    // LOGC_CTRL_MAGIC
    std::uint32_t dwLength;   // bytes of the whole frame
    std::uint32_t dwIndex;    // index of the addressed client; 0 in a language frame
    std::uint32_t dwCommand;  // LOGC_CMD_REALTIME or LOGC_CMD_LANGUAGE
    std::uint32_t dwParam1;
    std::uint32_t dwParam2;  // not sent in a language frame
};

constexpr std::size_t kRealTimeFrameBytes = 24;
constexpr std::size_t kLanguageFrameBytes = 20;

static_assert(sizeof(LogcCtrlFrame) == kRealTimeFrameBytes);
static_assert(offsetof(LogcCtrlFrame, dwParam2) == kLanguageFrameBytes);

// The frame that switches real-time logging of client nIndex: dwValue 1 to kMaxRealTimeValue on, 0
// off.
inline LogcCtrlFrame MakeRealTimeFrame(std::int32_t nIndex, std::uint32_t dwValue) {
    const auto dwIndex = static_cast<std::uint32_t>(nIndex);
    return {LOGC_CTRL_MAGIC, kRealTimeFrameBytes, dwIndex, LOGC_CMD_REALTIME, dwIndex, dwValue};
}

// The frame that tells every client of a new display language, LANGUAGE_CHINESE or
// LANGUAGE_ENGLISH.
inline LogcCtrlFrame MakeLanguageFrame(std::uint8_t byLanguage) {
    return {LOGC_CTRL_MAGIC, kLanguageFrameBytes, 0, LOGC_CMD_LANGUAGE, byLanguage, 0};
}
