// Integers in byte formats: little-endian at any address, on any processor.
#pragma once

#include <cstdint>

inline std::uint16_t LoadLe16(const void* pFrom) {
    const auto* p = static_cast<const std::uint8_t*>(pFrom);
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}

inline std::uint32_t LoadLe32(const void* pFrom) {
    const auto* p = static_cast<const std::uint8_t*>(pFrom);
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

inline void StoreLe16(void* pTo, std::uint16_t wValue) {
    auto* p = static_cast<std::uint8_t*>(pTo);
    p[0] = static_cast<std::uint8_t>(wValue);
    p[1] = static_cast<std::uint8_t>(wValue >> 8);
}

inline void StoreLe32(void* pTo, std::uint32_t dwValue) {
    auto* p = static_cast<std::uint8_t*>(pTo);
    p[0] = static_cast<std::uint8_t>(dwValue);
    p[1] = static_cast<std::uint8_t>(dwValue >> 8);
    p[2] = static_cast<std::uint8_t>(dwValue >> 16);
    p[3] = static_cast<std::uint8_t>(dwValue >> 24);
}
