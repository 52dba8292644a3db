#include "reading/TextRepair.h"

#include <algorithm>
#include <cstddef>

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

unsigned ByteAt(std::string_view strText, std::size_t nIndex) {
    return static_cast<unsigned char>(strText[nIndex]);
}

struct Sequence {
    std::size_t nBytes;  // 1 or more
    bool bValid;
};

// The range of the second byte: it keeps out overlong forms, surrogates and what is behind the last
// character.
bool IsSecondByte(unsigned nLead, unsigned nByte) {
    const unsigned nLowest = nLead == 0xE0 ? 0xA0 : nLead == 0xF0 ? 0x90 : 0x80;
    const unsigned nHighest = nLead == 0xED ? 0x9F : nLead == 0xF4 ? 0x8F : 0xBF;
    return nByte >= nLowest && nByte <= nHighest;
}

// The character at the front of strText, or the longest start of one that can stand there.
Sequence FrontSequence(std::string_view strText) {
    const unsigned nLead = ByteAt(strText, 0);
    if (nLead < 0x80) {
        return {1, true};
    }
    if (nLead < 0xC2 || nLead > 0xF4) {
        return {1, false};
    }
    const std::size_t nWanted = nLead < 0xE0 ? 2 : nLead < 0xF0 ? 3 : 4;
    std::size_t nBytes = 1;
    while (nBytes < nWanted && nBytes < strText.size() &&
           (nBytes == 1 ? IsSecondByte(nLead, ByteAt(strText, 1))
                        : (ByteAt(strText, nBytes) & 0xC0) == 0x80)) {
        ++nBytes;
    }
    return {nBytes, nBytes == nWanted};
}

bool IsPlain(char c) {
    return c >= ' ' && c < '\x7F';
}

// U+0000 to U+001F, U+007F to U+009F
bool IsControl(std::string_view strCharacter) {
    const unsigned nFirst = ByteAt(strCharacter, 0);
    return nFirst < ' ' || nFirst == 0x7F || (nFirst == 0xC2 && ByteAt(strCharacter, 1) < 0xA0);
}

void Append(fmt::memory_buffer& buffer, std::string_view strText) {
    buffer.append(strText.data(), strText.data() + strText.size());
}

}  // namespace

void AppendRepaired(fmt::memory_buffer& buffer, std::string_view strText, EControls eControls) {
    while (!strText.empty()) {
        const auto itOdd = std::find_if_not(strText.begin(), strText.end(), IsPlain);
        const auto nPlain = static_cast<std::size_t>(itOdd - strText.begin());
        Append(buffer, strText.substr(0, nPlain));
        strText.remove_prefix(nPlain);
        if (strText.empty()) {
            return;
        }
        const Sequence front = FrontSequence(strText);
        const std::string_view strCharacter = strText.substr(0, front.nBytes);
        if (!front.bValid) {
            Append(buffer, kReplacement);
        } else if (eControls == EControls::kDots && IsControl(strCharacter)) {
            Append(buffer, ".");
        } else {
            Append(buffer, strCharacter);
        }
        strText.remove_prefix(front.nBytes);
    }
}

std::string Repaired(std::string_view strText, EControls eControls) {
    fmt::memory_buffer buffer;
    AppendRepaired(buffer, strText, eControls);
    return fmt::to_string(buffer);
}
