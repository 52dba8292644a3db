// Numbers of things, as a sentence has them.
//
// Threads: any.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>

// "1 slot", "2 slots".
inline std::string Counted(std::uint64_t nCount, const char* szOne, const char* szMany) {
    return fmt::format("{} {}", nCount, nCount == 1 ? szOne : szMany);
}
