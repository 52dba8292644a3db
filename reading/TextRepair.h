// Makes texts from outside fit to be shown and handed on.
//
// Threads: any.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

// What a reader does not see as it is: C0 and C1 controls and DEL, which act on a terminal or end a
// line; U+200E, U+200F, U+061C, U+202A to U+202E and U+2066 to U+2069, which turn the direction of
// text round; U+200B to U+200D, U+2060 and U+FEFF, which have no width; U+2028 and U+2029, which
// end lines.
enum class EControls {
    kDots,     // stand as dots
    kEscaped,  // as \uXXXX, for JSON
    kKept,
};

// Appends strText with U+FFFD in place of what is no UTF-8.
void AppendRepaired(fmt::memory_buffer& buffer, std::string_view strText, EControls eControls);

// strText by itself, repaired so.
std::string Repaired(std::string_view strText, EControls eControls);

// strText as a person may see it, on a terminal or anywhere: what is no UTF-8 replaced, and dots
// for what a reader does not see as it is. Of what is printed of others' making, all has gone
// through this.
inline std::string Shown(std::string_view strText) {
    return Repaired(strText, EControls::kDots);
}
