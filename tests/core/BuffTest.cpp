// What goes in comes out in order; what does not fit is refused whole; frames are cut where they
// end.
#include "core/Buff.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <vector>

namespace {

std::int32_t Put(CBuff& buff, const std::string& strBytes) {
    return buff.Write(strBytes.data(), static_cast<std::int32_t>(strBytes.size()));
}

// nBytes bytes that begin with byLead and a 32-bit length field of nLength.
std::string Frame(unsigned char byLead, std::uint32_t nLength, std::size_t nBytes) {
    std::string strFrame(1, static_cast<char>(byLead));
    for (int nByte = 0; nByte < 4; ++nByte) {
        strFrame += static_cast<char>(nLength >> (8 * nByte) & 0xFF);
    }
    strFrame.resize(nBytes, '\x55');
    return strFrame;
}

struct DetectCase {
    const char* szName;
    std::int32_t (CBuff::*pfnDetect)() const;
    std::string strHeld;  // bytes in the ring
    std::int32_t nResult;
};

class BuffDetect : public testing::TestWithParam<DetectCase> {};

// Every case at every rotation of the ring: what straddles the end reads the same. The rest of the
// ring is full of what a detector looks for, and must not be taken for held bytes.
TEST_P(BuffDetect, SeesTheFrontWhereverItLies) {
    const DetectCase& c = GetParam();
    const std::size_t nCapacity = c.strHeld.size() + 2;
    for (std::size_t nCase = 0; nCase < 2 * nCapacity; ++nCase) {
        const auto nShift = static_cast<std::int32_t>(nCase / 2);
        const char cStale = nCase % 2 == 0 ? 'x' : '\n';
        CBuff buff(static_cast<std::int32_t>(nCapacity));
        Put(buff, std::string(nCapacity, cStale));
        buff.Skip(nShift);
        Put(buff, std::string(nCase / 2, cStale));
        buff.Skip(buff.GetUsed());
        Put(buff, c.strHeld);
        ASSERT_EQ((buff.*c.pfnDetect)(), c.nResult) << "rotated by " << nShift;
        ASSERT_EQ(buff.GetFree(), 2) << "a detector consumes nothing";
    }
}

INSTANTIATE_TEST_SUITE_P(
    FeFrame, BuffDetect,
    testing::Values(
        DetectCase{"Nothing", &CBuff::CheckFeFrame, "", 0},
        DetectCase{"LengthNotAllHere", &CBuff::CheckFeFrame, Frame(0xFE, 3, 4), 0},
        DetectCase{"OneByteShort", &CBuff::CheckFeFrame, Frame(0xFE, 3, 8), 0},
        DetectCase{"Whole", &CBuff::CheckFeFrame, Frame(0xFE, 3, 9), 9},
        DetectCase{"WholeAndMore", &CBuff::CheckFeFrame, Frame(0xFE, 3, 13), 9},
        DetectCase{"NoBody", &CBuff::CheckFeFrame, Frame(0xFE, 0, 6), 6},
        DetectCase{"LongestOneByteShort", &CBuff::CheckFeFrame, Frame(0xFE, 200, 205), 0},
        DetectCase{"Longest", &CBuff::CheckFeFrame, Frame(0xFE, 200, 206), 206},
        DetectCase{"TooLong", &CBuff::CheckFeFrame, Frame(0xFE, 201, 5), -1},
        DetectCase{"HighestLengthByteCounts", &CBuff::CheckFeFrame, Frame(0xFE, 0x80000003, 9), -1},
        DetectCase{"OtherLead", &CBuff::CheckFeFrame, "\x7E", -1},
        DetectCase{"OtherKind", &CBuff::CheckFeFrame, Frame(0xF1, 20, 26), -1}),
    [](const auto& test) { return std::string(test.param.szName); });

INSTANTIATE_TEST_SUITE_P(
    F1Frame, BuffDetect,
    testing::Values(DetectCase{"Nothing", &CBuff::CheckF1Frame, "", 0},
                    DetectCase{"LengthNotAllHere", &CBuff::CheckF1Frame, Frame(0xF1, 13, 4), 0},
                    DetectCase{"TooShort", &CBuff::CheckF1Frame, Frame(0xF1, 12, 13), -1},
                    DetectCase{"ShortestOneByteShort", &CBuff::CheckF1Frame, Frame(0xF1, 13, 12),
                               0},
                    DetectCase{"Shortest", &CBuff::CheckF1Frame, Frame(0xF1, 13, 13), 13},
                    DetectCase{"Longest", &CBuff::CheckF1Frame, Frame(0xF1, 600, 601), 600},
                    DetectCase{"TooLong", &CBuff::CheckF1Frame, Frame(0xF1, 601, 601), -1},
                    DetectCase{"Negative", &CBuff::CheckF1Frame, Frame(0xF1, 0xFFFFFFFF, 20), -1},
                    DetectCase{"OtherKind", &CBuff::CheckF1Frame, Frame(0xFE, 20, 26), -1}),
    [](const auto& test) { return std::string(test.param.szName); });

INSTANTIATE_TEST_SUITE_P(
    Text, BuffDetect,
    testing::Values(DetectCase{"LineEnd", &CBuff::FindCrLf, "ab\r\n", 2},
                    DetectCase{"LineEndAtTheFront", &CBuff::FindCrLf, "\r\n", 0},
                    DetectCase{"FirstOfTwoLineEnds", &CBuff::FindCrLf, "a\r\r\nb\r\n", 2},
                    DetectCase{"CrWaitsForItsLf", &CBuff::FindCrLf, "ab\r", -1},
                    DetectCase{"LfBeforeCr", &CBuff::FindCrLf, "a\n\r", -1},
                    DetectCase{"NoLine", &CBuff::FindCrLf, "", -1},
                    DetectCase{"CapitalX", &CBuff::FindX, "helloX", 5},
                    DetectCase{"SmallXFirst", &CBuff::FindX, "axX", 1},
                    DetectCase{"NoX", &CBuff::FindX, "hello", -1},
                    DetectCase{"NothingToSearch", &CBuff::FindX, "", -1}),
    [](const auto& test) { return std::string(test.param.szName); });

TEST(Buff, UsesItsWholeCapacityAndRefusesMore) {
    CBuff buff(8);
    EXPECT_EQ(Put(buff, "12345678"), 8);
    EXPECT_EQ(buff.GetFree(), 0);
    EXPECT_EQ(Put(buff, "9"), 0);
    EXPECT_EQ(buff.Skip(3), 3);
    EXPECT_EQ(Put(buff, "abcd"), 0) << "all or nothing";
    EXPECT_EQ(Put(buff, "abc"), 3);
    char szOut[9] = {};
    EXPECT_EQ(buff.Peek(szOut, 100), 8);
    EXPECT_STREQ(szOut, "45678abc");
    EXPECT_EQ(buff.Skip(5), 0) << "an index at the end is 0 again";
    buff.Reset();
    EXPECT_EQ(buff.GetUsed(), 0);
    EXPECT_EQ(Put(buff, "12345678"), 8);
}

TEST(Buff, TakesAndGivesNothingForANegativeLength) {
    CBuff buff(8);
    ASSERT_EQ(Put(buff, "abc"), 3);
    char byOut = '?';
    EXPECT_EQ(buff.Write("xyz", -1), 0);
    EXPECT_EQ(buff.Write("xyz", INT32_MIN), 0);
    EXPECT_EQ(buff.Peek(&byOut, -1), 0);
    EXPECT_EQ(byOut, '?');
    EXPECT_EQ(buff.GetUsed(), 3);
}

TEST(Buff, MatchesADequeUnderRandomUse) {
    std::mt19937 rng(301);  // fixed, so a failure repeats
    constexpr std::int32_t kCapacity = 7;
    CBuff buff(kCapacity);  // pieces of 0..8 bytes: some never fit, wraps split anywhere
    std::deque<char> model;
    for (int nStep = 0; nStep < 20000; ++nStep) {
        const auto nLen = static_cast<std::int32_t>(rng() % 9);
        if (rng() % 2 == 0) {
            std::string strPiece;
            std::generate_n(std::back_inserter(strPiece), nLen,
                            [&] { return static_cast<char>(rng()); });
            const bool bFits = nLen <= kCapacity - static_cast<std::int32_t>(model.size());
            ASSERT_EQ(Put(buff, strPiece), bFits ? nLen : 0);
            if (bFits) {
                model.insert(model.end(), strPiece.begin(), strPiece.end());
            }
        } else {
            const auto nTake = std::min(nLen, static_cast<std::int32_t>(model.size()));
            std::vector<char> out(9);
            ASSERT_EQ(buff.Peek(out.data(), nLen), nTake);
            ASSERT_TRUE(std::equal(out.begin(), out.begin() + nTake, model.begin())) << nStep;
            buff.Skip(nTake);
            model.erase(model.begin(), model.begin() + nTake);
        }
        ASSERT_EQ(buff.GetUsed(), static_cast<std::int32_t>(model.size()));
        ASSERT_EQ(buff.GetFree(), kCapacity - buff.GetUsed());
    }
}

}  // namespace
