// When a console session has been idle for too long.
#pragma once

#include <cstdint>

// tNow, tLastActive: seconds since 1970. nAllowed: idle seconds allowed; negative for no limit. The
// elapsed seconds count as an unsigned 32-bit number, so a clock that was set back ends the session
// at once.
constexpr bool IsIdleTooLong(std::int64_t tNow, std::int64_t tLastActive, std::int32_t nAllowed) {
    return nAllowed >= 0 &&
           static_cast<std::uint32_t>(tNow - tLastActive) >= static_cast<std::uint32_t>(nAllowed);
}
