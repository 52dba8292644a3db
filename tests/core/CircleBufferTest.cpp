// The ring clips what does not fit, keeps order over the wrap and is harmless without storage.
#include "core/CircleBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "core/FailingNew.h"

namespace {

std::uint32_t Put(CCircleBuffer& ring, const std::string& strBytes) REQUIRES(ring) {
    return ring.Write(strBytes.data(), static_cast<std::uint32_t>(strBytes.size()));
}

std::string Look(const CCircleBuffer& ring, std::uint32_t nLen) REQUIRES(ring) {
    std::string strOut(nLen, '?');
    strOut.resize(ring.Peek(strOut.data(), nLen));
    return strOut;
}

TEST(CircleBuffer, KeepsOneByteFreeAndClipsTheRest) {
    CCircleBuffer ring;
    ASSERT_EQ(ring.Init(8), 1);
    const CLockGuard guard(ring);
    EXPECT_EQ(Put(ring, "0123456789"), 7U);
    EXPECT_EQ(ring.GetFree(), 0U);
    EXPECT_EQ(ring.Skip(5), 5U);
    EXPECT_EQ(Put(ring, "abcde"), 5U);
    EXPECT_EQ(Look(ring, 7), "56abcde");
    EXPECT_EQ(ring.Skip(100), 7U);
    EXPECT_EQ(ring.GetUsed(), 0U);
}

TEST(CircleBuffer, MatchesADequeUnderRandomUse) {
    std::mt19937 rng(302);  // fixed, so a failure repeats
    constexpr std::uint32_t kCapacity = 8;
    CCircleBuffer ring;
    ASSERT_EQ(ring.Init(kCapacity), 1);
    const CLockGuard guard(ring);
    std::deque<char> model;
    for (int nStep = 0; nStep < 20000; ++nStep) {
        const auto nLen = static_cast<std::uint32_t>(rng() % 10);
        const auto nHeld = static_cast<std::uint32_t>(model.size());
        const std::uint32_t nTake = std::min(nLen, nHeld);
        const std::string strFront(model.begin(), model.begin() + nTake);
        const auto nWhat = rng() % 4;
        if (nWhat < 2) {
            std::string strPiece;
            std::generate_n(std::back_inserter(strPiece), nLen,
                            [&] { return static_cast<char>(rng()); });
            const std::uint32_t nPut = std::min(nLen, kCapacity - 1 - nHeld);
            ASSERT_EQ(Put(ring, strPiece), nPut);
            model.insert(model.end(), strPiece.begin(), strPiece.begin() + nPut);
        } else {
            ASSERT_EQ(Look(ring, nLen), strFront) << nStep;
            if (nWhat == 2) {
                ASSERT_EQ(ring.Skip(nLen), nTake);
            } else {
                std::vector<char> out(10);
                ASSERT_EQ(ring.Read(out.data(), nLen), nTake);
                ASSERT_EQ(std::string(out.data(), nTake), strFront);
            }
            model.erase(model.begin(), model.begin() + nTake);
        }
        ASSERT_EQ(ring.GetUsed(), model.size());
        ASSERT_EQ(ring.GetFree(), kCapacity - 1 - model.size());
    }
}

void ExpectDead(CCircleBuffer& ring, const char* szWhen) REQUIRES(ring) {
    EXPECT_EQ(ring.GetBuffer(), nullptr) << szWhen;
    EXPECT_EQ(ring.GetFree(), 0U) << szWhen;
    EXPECT_EQ(Put(ring, "ab"), 0U) << szWhen;
    EXPECT_EQ(Look(ring, 2), "") << szWhen;
    EXPECT_EQ(ring.Skip(2), 0U) << szWhen;
}

TEST(CircleBuffer, HoldsAndAcceptsNothingWithoutStorage) {
    CCircleBuffer ring;
    const CLockGuard guard(ring);
    ExpectDead(ring, "before Init");
    ASSERT_EQ(ring.Init(8), 1);
    Put(ring, "abc");
    ring.Release();
    ExpectDead(ring, "after Release");
    ASSERT_EQ(ring.Init(8), 1);
    {
        const CFailingNew exhausted;
        EXPECT_EQ(ring.Init(8), 0);
    }
    ExpectDead(ring, "after an Init without memory");
}

TEST(CircleBuffer, KeepsItsIndicesOverInitUnlessOneWouldLieOutside) {
    CCircleBuffer ring;
    ASSERT_EQ(ring.Init(8), 1);
    const CLockGuard guard(ring);
    Put(ring, "abcde");
    ring.Skip(2);
    ASSERT_EQ(ring.Init(16), 1);
    EXPECT_EQ(ring.GetUsed(), 3U);
    ASSERT_EQ(ring.Init(6), 1);
    EXPECT_EQ(ring.GetUsed(), 3U) << "index 5 of 6 lies inside";
    ASSERT_EQ(ring.Init(5), 1);
    EXPECT_EQ(ring.GetUsed(), 0U) << "index 5 of 5 lies outside";
    EXPECT_EQ(Put(ring, "vwxyz"), 4U);
    EXPECT_EQ(Look(ring, 9), "vwxy");
    ring.Skip(4);
    EXPECT_EQ(Put(ring, "z"), 1U);
    ASSERT_EQ(ring.Init(5), 1);
    EXPECT_EQ(ring.GetUsed(), 1U) << "an index that reached the end is 0, which lies inside";
}

}  // namespace
