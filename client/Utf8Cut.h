// Where a text is cut that does not fit in one piece.
#pragma once

#include <cstddef>

namespace tarvik {

// Length of the first piece of the nLen bytes at pText: all of them up to nMax, else at most nMax,
// so that no character of UTF-8 is cut apart. Where the bytes are no UTF-8 they are cut at nMax.
// nMax: 4 or more.
std::size_t FirstPiece(const char* pText, std::size_t nLen, std::size_t nMax);

}  // namespace tarvik
