// A whole frame or a part of one, as it travels.
#pragma once

#include <cstdint>
#include <vector>

using FrameBytes = std::vector<std::uint8_t>;
