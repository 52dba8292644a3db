// Makes texts from outside fit to be shown and handed on.
//
// Threads: any.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

enum class EControls {
    kDots,  // control characters as dots: they would act on a terminal, or end a line
    kKept,
};

// Appends strText with U+FFFD in place of what is no UTF-8.
void AppendRepaired(fmt::memory_buffer& buffer, std::string_view strText, EControls eControls);

// strText by itself, repaired so.
std::string Repaired(std::string_view strText, EControls eControls);
