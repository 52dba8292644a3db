// What a datagram on the control port says.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tarvik {

struct ControlWord {
    enum class Kind : std::uint8_t { None, RealTime, Language };
    Kind kind = Kind::None;  // None: not a control frame for this client
    int nValue = 0;          // RealTime: 0 to 65535; Language: LANGUAGE_CHINESE or LANGUAGE_ENGLISH
};

// Reads a datagram of nLen bytes, of which pData holds as many as a frame may have, for the client
// nIndex.
ControlWord ReadControlFrame(const void* pData, std::size_t nLen, int nIndex);

}  // namespace tarvik
