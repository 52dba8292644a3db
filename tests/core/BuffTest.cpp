// What goes in comes out in order; what does not fit is refused whole; frames are cut where they
// end.
#include "core/Buff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>

namespace {

std::int32_t Put(CBuff& buff, const std::string& strBytes) {
    return buff.Write(strBytes.data(), static_cast<std::int32_t>(strBytes.size()));
}

// A frame's lead byte and 32-bit length, little-endian, and bytes behind it: nBytes in all.
std::string Frame(const char* pHead, std::size_t nBytes) {
    std::string strFrame(pHead, 5);
    strFrame.resize(nBytes, '\x55');
    return strFrame;
}

// Every case at every rotation of the ring: what straddles the end reads the same. The rest of the
// ring is full of what a detector looks for, and must not be taken for held bytes.
TEST(Buff, DetectorsSeeTheFrontWhereverItLies) {
    constexpr auto kFe = &CBuff::CheckFeFrame;
    constexpr auto kF1 = &CBuff::CheckF1Frame;
    const struct {
        const char* szName;
        std::int32_t (CBuff::*pfnDetect)() const;
        std::string strHeld;  // bytes in the ring
        std::int32_t nResult;
    } kCases[] = {
        {"FE: nothing", kFe, "", 0},
        {"FE: length not all here", kFe, Frame("\xFE\x03\0\0\0", 4), 0},
        {"FE: one byte short", kFe, Frame("\xFE\x03\0\0\0", 8), 0},
        {"FE: whole and more", kFe, Frame("\xFE\x03\0\0\0", 13), 9},
        {"FE: longest", kFe, Frame("\xFE\xC8\0\0\0", 206), 206},
        {"FE: too long", kFe, Frame("\xFE\xC9\0\0\0", 5), -1},
        {"FE: highest length byte counts", kFe, Frame("\xFE\x03\0\0\x80", 9), -1},
        {"F1: too short", kF1, Frame("\xF1\x0C\0\0\0", 13), -1},
        {"F1: one byte short", kF1, Frame("\xF1\x0D\0\0\0", 12), 0},
        {"F1: longest and more", kF1, Frame("\xF1\x58\x02\0\0", 601), 600},
        {"F1: too long", kF1, Frame("\xF1\x59\x02\0\0", 601), -1},
        {"F1: other kind", kF1, Frame("\xFE\x14\0\0\0", 26), -1},
        {"first of two line ends", &CBuff::FindCrLf, "a\r\r\nb\r\n", 2},
        {"CR waits for its LF", &CBuff::FindCrLf, "ab\r", -1},
        {"capital X", &CBuff::FindX, "helloX", 5},
        {"small x first", &CBuff::FindX, "axX", 1},
    };
    for (const auto& c : kCases) {
        const std::size_t nCapacity = c.strHeld.size() + 2;
        for (std::size_t nCase = 0; nCase < 2 * nCapacity; ++nCase) {
            const std::string strStale(nCapacity, nCase % 2 == 0 ? 'x' : '\n');
            CBuff buff(static_cast<std::int32_t>(nCapacity));
            Put(buff, strStale);
            buff.Skip(static_cast<std::int32_t>(nCase / 2));
            Put(buff, strStale.substr(0, nCase / 2));
            buff.Skip(buff.GetUsed());
            Put(buff, c.strHeld);
            ASSERT_EQ((buff.*c.pfnDetect)(), c.nResult) << c.szName << ", rotated by " << nCase / 2;
        }
    }
}

TEST(Buff, MatchesADequeUnderRandomUse) {
    std::mt19937 rng(301);  // fixed, so a failure repeats
    constexpr std::int32_t kCapacity = 7;
    CBuff buff(kCapacity);
    std::deque<char> model;
    std::int32_t nFront = 0;  // index of the oldest byte
    for (int nStep = 0; nStep < 20000; ++nStep) {
        // pieces of -1 to 8 bytes: some are none, some never fit, wraps split anywhere
        const auto nLen = static_cast<std::int32_t>(rng() % 10) - 1;
        char szPiece[8];
        if (rng() % 2 == 0) {
            std::generate(szPiece, szPiece + 8, [&] { return static_cast<char>(rng()); });
            const bool bFits = nLen > 0 && nLen <= buff.GetFree();
            ASSERT_EQ(buff.Write(szPiece, nLen), bFits ? nLen : 0);
            model.insert(model.end(), szPiece, szPiece + (bFits ? nLen : 0));
        } else {
            const auto nTake = std::clamp(nLen, 0, buff.GetUsed());
            ASSERT_EQ(buff.Peek(szPiece, nLen), nTake);
            ASSERT_TRUE(std::equal(szPiece, szPiece + nTake, model.begin())) << nStep;
            nFront = (nFront + nTake) % kCapacity;
            ASSERT_EQ(buff.Skip(nTake), nFront);
            model.erase(model.begin(), model.begin() + nTake);
        }
        if (rng() % 50 == 0) {
            buff.Reset();
            model.clear();
            nFront = 0;
        }
        ASSERT_EQ(buff.GetUsed(), static_cast<std::int32_t>(model.size()));
        ASSERT_EQ(buff.GetFree(), kCapacity - buff.GetUsed());
    }
}

}  // namespace
