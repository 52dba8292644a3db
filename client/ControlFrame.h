// What a datagram on the control port says.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarvik {

struct ControlWord {
    enum class Kind : std::uint8_t { kNone, kRealTime, kLanguage };
    Kind kind = Kind::kNone;  // kNone: not a control frame for this client
    int nValue = 0;  // kRealTime: 0 to kMaxRealTimeValue; kLanguage: LANGUAGE_CHINESE or _ENGLISH
};

// Reads a datagram of nLen bytes, of which pData holds as many as a frame may have, for the client
// nIndex.
ControlWord ReadControlFrame(const void* pData, std::size_t nLen, int nIndex);

}  // namespace tarvik
