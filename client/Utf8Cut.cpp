#include "client/Utf8Cut.h"

namespace tarvik {

namespace {

constexpr std::size_t kLongestCharacter = 4;

bool IsContinuation(unsigned char by) {
    return (by & 0xC0U) == 0x80U;
}

// Bytes of the character that begins with byLead; 1 for a byte that begins none.
std::size_t CharacterLength(unsigned char byLead) {
    if ((byLead & 0xE0U) == 0xC0U) {
        return 2;
    }
    if ((byLead & 0xF0U) == 0xE0U) {
        return 3;
    }
    return (byLead & 0xF8U) == 0xF0U ? 4 : 1;
}

}  // namespace

std::size_t FirstPiece(const char* pText, std::size_t nLen, std::size_t nMax) {
    if (nLen <= nMax) {
        return nLen;
    }
    for (std::size_t nBack = 0; nBack < kLongestCharacter; ++nBack) {
        const auto by = static_cast<unsigned char>(pText[nMax - nBack]);
        if (!IsContinuation(by)) {
            return nBack < CharacterLength(by) ? nMax - nBack : nMax;
        }
    }
    return nMax;
}

}  // namespace tarvik
