// The ring clips what does not fit, keeps order over the wrap and is harmless without storage.
#include "core/CircleBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

namespace {

TEST(CircleBuffer, MatchesADequeUnderRandomUseAndKeepsOneByteFree) {
    std::mt19937 rng(302);  // fixed, so a failure repeats
    constexpr std::uint32_t kCapacity = 8;
    CCircleBuffer ring;
    ASSERT_EQ(ring.Init(kCapacity), 1);
    const CLockGuard guard(ring);
    std::deque<char> model;
    for (int nStep = 0; nStep < 20000; ++nStep) {
        const auto nLen = static_cast<std::uint32_t>(rng() % 10);
        const auto nHeld = static_cast<std::uint32_t>(model.size());
        char szPiece[10];
        if (rng() % 2 == 0) {
            std::generate(szPiece, szPiece + 10, [&] { return static_cast<char>(rng()); });
            const std::uint32_t nPut = std::min(nLen, kCapacity - 1 - nHeld);
            ASSERT_EQ(ring.Write(szPiece, nLen), nPut);
            model.insert(model.end(), szPiece, szPiece + nPut);
        } else {
            const std::uint32_t nTake = std::min(nLen, nHeld);
            const bool bSkip = rng() % 2 == 0;
            ASSERT_EQ(bSkip ? ring.Peek(szPiece, nLen) : ring.Read(szPiece, nLen), nTake);
            ASSERT_TRUE(std::equal(szPiece, szPiece + nTake, model.begin())) << nStep;
            ASSERT_EQ(bSkip ? ring.Skip(nLen) : nTake, nTake);
            model.erase(model.begin(), model.begin() + nTake);
        }
        ASSERT_EQ(ring.GetUsed(), model.size());
    }
}

TEST(CircleBuffer, KeepsItsIndicesOverInitUnlessOneWouldLieOutside) {
    CCircleBuffer ring;
    const CLockGuard guard(ring);
    EXPECT_EQ(ring.Write("ab", 2), 0U) << "no storage yet";
    ASSERT_EQ(ring.Init(8), 1);
    ASSERT_EQ(ring.Write("abcde", 5), 5U);
    ASSERT_EQ(ring.Skip(2), 2U);
    for (const std::uint32_t nSize : {16U, 6U, 5U}) {
        ring.Release();
        EXPECT_EQ(ring.GetFree() + ring.Write("x", 1) + ring.Skip(1), 0U) << "no storage";
        ASSERT_EQ(ring.Init(nSize), 1);
        EXPECT_EQ(ring.GetUsed(), nSize == 5 ? 0U : 3U) << "index 5 lies outside of 5 bytes only";
    }
}

}  // namespace
