// Copies share one block, a change touches one string only, and a broken invariant stops the
// process.
#include "support/cstring.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr char kName[] = "MSG_ERR_NoBuff";

// A string whose inner operations can be called.
class CProbe : public CString {
public:
    using CString::AllocBuffer;
    using CString::CopyBeforeWrite;
    using CString::operator=;
    using CString::Release;
};

TEST(CString, CopiesShareABlockUntilOneOfThemChanges) {
    CProbe strName;
    strName = kName;
    {
        CString strOther;
        strOther = "another";
        strOther = strName;       // gives up its old block
        strOther = strOther + 4;  // out of the shared block
        EXPECT_STREQ(strOther, "ERR_NoBuff");
        EXPECT_STREQ(strName, kName);
        strOther = strName;
        strOther = strName;  // shares already
        const CString strCopy(strOther);
        EXPECT_EQ(strCopy.GetData(), strName.GetData());
        EXPECT_EQ(strName.GetData()->nRefs, 3);
        strName.CopyBeforeWrite();
        EXPECT_NE(strName.GetData(), strCopy.GetData());
        EXPECT_STREQ(strName, kName);
        EXPECT_STREQ(strCopy, kName);
        strOther = strName;
    }
    EXPECT_EQ(strName.GetData()->nRefs, 1);
}

TEST(CString, ABlockOfItsOwnIsUsedAgainForWhatFits) {
    CString strName;
    strName = kName;
    const CStringData* const pBlock = strName.GetData();
    for (const char* szText : {"", "shorter", "exactly-as-big"}) {
        strName = szText;
        EXPECT_EQ(strName.GetData(), pBlock);
        EXPECT_STREQ(strName, szText);
    }
    strName = strName + 4;  // a part of itself
    EXPECT_STREQ(strName, "tly-as-big");
    EXPECT_EQ(strName.GetLength(), 10);
    strName = CString();  // the empty block is shared by all and counted by none
    EXPECT_EQ(strName.GetData(), pBlock);
    EXPECT_EQ(_afxDataNil->nRefs, -1);
    strName = "one longer here";
    EXPECT_STREQ(strName, "one longer here");
    EXPECT_EQ(strName.GetAllocLength(), 15);
}

TEST(CString, ABrokenInvariantStopsTheProcessAndSaysWhere) {
    using testing::HasSubstr;
    CProbe strBroken;
    strBroken = kName;
    EXPECT_DEATH(strBroken.AllocBuffer(-1), HasSubstr("AllocBuffer: Assertion `nLen >= 0' failed"));
    strBroken.GetData()->nRefs = 0;
    EXPECT_DEATH(strBroken.Release(),
                 HasSubstr("cstring.cpp: Release: Assertion `GetData()->nRefs != 0' failed.\n"));
    strBroken.GetData()->nRefs = 1;
}

}  // namespace
