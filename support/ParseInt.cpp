#include "support/ParseInt.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

std::int32_t ParseInt(const std::string& strText) {
    const long long nValue = std::strtoll(strText.c_str(), nullptr, 10);  // saturates by itself
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(std::clamp<long long>(nValue, Limits::min(), Limits::max()));
}
