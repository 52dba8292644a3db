// Numbers as the configuration writes them.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>

// The decimal number at the start of strText, read as atoi reads it (leading blanks, a sign, 0 when
// there are no digits), but held at the ends of the range of int instead of overflowing.
std::int32_t ParseInt(const std::string& strText);
