#include "reading/TextRepair.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

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

// The number of a character that is whole and valid.
unsigned CodeOf(std::string_view strCharacter) {
    const unsigned nFirst = ByteAt(strCharacter, 0);
    const std::size_t nBytes = strCharacter.size();
    unsigned nCode = nBytes == 1 ? nFirst : nFirst & (0x7FU >> nBytes);
    for (std::size_t i = 1; i < nBytes; ++i) {
        nCode = nCode << 6U | (ByteAt(strCharacter, i) & 0x3FU);
    }
    return nCode;
}

struct CodeRange {
    unsigned nFirst;
    unsigned nLast;
};
constexpr CodeRange kUnseen[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C}, {0x200B, 0x200F},
    {0x2028, 0x202E}, {0x2060, 0x2060}, {0x2066, 0x2069}, {0xFEFF, 0xFEFF},
};

bool IsUnseen(unsigned nCode) {
    return std::any_of(std::begin(kUnseen), std::end(kUnseen), [nCode](const CodeRange& range) {
        return nCode >= range.nFirst && nCode <= range.nLast;
    });
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
        } else if (eControls == EControls::kKept || !IsUnseen(CodeOf(strCharacter))) {
            Append(buffer, strCharacter);
        } else if (eControls == EControls::kDots) {
            Append(buffer, ".");
        } else {
            fmt::format_to(std::back_inserter(buffer), "\\u{:04x}", CodeOf(strCharacter));
        }
        strText.remove_prefix(front.nBytes);
    }
}

std::string Repaired(std::string_view strText, EControls eControls) {
    fmt::memory_buffer buffer;
    AppendRepaired(buffer, strText, eControls);
    return fmt::to_string(buffer);
}
