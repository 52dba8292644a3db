// Copies share one block, a change touches one string only, and a broken invariant stops the
// process.
#include "support/cstring.h"

#include <csignal>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr char kName[] = "MSG_ERR_NoBuff";
constexpr int kNameLength = 14;

// A string whose inner operations can be called.
class CProbe : public CString {
public:
    using CString::AllocBeforeWrite;
    using CString::AllocBuffer;
    using CString::CopyBeforeWrite;
    using CString::m_pchData;
    using CString::operator=;
    using CString::Release;
};

TEST(CString, EmptyStringsUseTheOneEmptyBlock) {
    const CString strEmpty;
    const CString strCopy(strEmpty);
    CString strAssigned;
    strAssigned = strCopy;
    CString strFromNothing;
    strFromNothing = "";
    const std::vector<const CString*> listStrings{&strEmpty, &strCopy, &strAssigned,
                                                  &strFromNothing};
    for (const CString* pString : listStrings) {
        EXPECT_EQ(pString->GetData(), _afxDataNil);
        EXPECT_STREQ(*pString, "");
        EXPECT_TRUE(pString->IsEmpty());
        EXPECT_EQ(pString->GetLength(), 0);
        EXPECT_EQ(pString->GetAllocLength(), 0);
    }
    EXPECT_EQ(_afxDataNil->nRefs, -1);
}

TEST(CString, TextGetsABlockOfItsSize) {
    CString strName;
    strName = kName;
    EXPECT_STREQ(strName, kName);
    EXPECT_EQ(strName.GetData()->nRefs, 1);
    EXPECT_EQ(strName.GetLength(), kNameLength);
    EXPECT_EQ(strName.GetAllocLength(), kNameLength);
    EXPECT_FALSE(strName.IsEmpty());
}

TEST(CString, CopiesShareABlockAndCountThemselves) {
    CString strOther;
    strOther = "another";
    {
        CString strName;
        strName = kName;
        {
            const CString strCopy(strName);  // NOLINT(performance-unnecessary-copy-initialization)
            EXPECT_EQ(strCopy.GetData(), strName.GetData());
            EXPECT_EQ(strName.GetData()->nRefs, 2);
        }
        EXPECT_EQ(strName.GetData()->nRefs, 1);
        strOther = strName;  // gives up its old block
        EXPECT_EQ(strOther.GetData(), strName.GetData());
        strOther = strName;
        EXPECT_EQ(strName.GetData()->nRefs, 2) << "sharing already";
    }
    const CString& strItself = strOther;
    strOther = strItself;
    EXPECT_STREQ(strOther, kName);
    EXPECT_EQ(strOther.GetData()->nRefs, 1);
}

TEST(CString, AChangeTouchesOneStringOnly) {
    CString strName;
    strName = kName;
    CString strCopy(strName);
    strCopy = "short";
    EXPECT_STREQ(strCopy, "short");
    EXPECT_EQ(strCopy.GetAllocLength(), 5);
    EXPECT_STREQ(strName, kName);
    EXPECT_EQ(strName.GetData()->nRefs, 1);
    EXPECT_EQ(strCopy.GetData()->nRefs, 1);
}

TEST(CString, ABlockOfItsOwnIsUsedAgainForWhatFits) {
    CString strName;
    strName = kName;
    const CStringData* const pBlock = strName.GetData();
    for (const char* szText :
         {"shorter", "", "exactly-as-big", static_cast<const char*>(nullptr)}) {
        strName = szText;
        const std::string strExpected = szText == nullptr ? "" : szText;
        EXPECT_EQ(strName.GetData(), pBlock);
        EXPECT_EQ(strName.GetLength(), static_cast<int>(strExpected.size()));
        EXPECT_STREQ(strName, strExpected.c_str());
    }
    strName = CString();  // an empty source is copied too
    EXPECT_EQ(strName.GetData(), pBlock);
    strName = "one longer here";
    EXPECT_STREQ(strName, "one longer here");
    EXPECT_EQ(strName.GetAllocLength(), kNameLength + 1);
}

TEST(CString, TakesAPartOfItself) {
    CString strName;
    strName = kName;
    const CString strCopy(strName);
    strName = strName + 4;  // out of a shared block
    EXPECT_STREQ(strName, "ERR_NoBuff");
    strName = strName + 4;  // within its own
    EXPECT_STREQ(strName, "NoBuff");
    EXPECT_STREQ(strCopy, kName);
}

TEST(CString, ABlockThatMayNotBeSharedIsCopied) {
    CProbe strLocked;
    strLocked = kName;
    strLocked.GetData()->nRefs = -1;
    const CString strCopy(strLocked);
    CString strAssigned;
    strAssigned = strLocked;
    const std::vector<const CString*> listCopies{&strCopy, &strAssigned};
    for (const CString* pString : listCopies) {
        EXPECT_NE(pString->GetData(), strLocked.GetData());
        EXPECT_STREQ(*pString, kName);
        EXPECT_EQ(pString->GetData()->nRefs, 1);
    }
    strAssigned = "text";
    const CStringData* const pBlock = strLocked.GetData();
    strLocked = strAssigned;
    EXPECT_EQ(strLocked.GetData(), pBlock);
    EXPECT_STREQ(strLocked, "text");
    EXPECT_EQ(strAssigned.GetData()->nRefs, 1);
}

TEST(CString, CopyBeforeWriteLeavesABlockOfItsOwn) {
    CProbe strName;
    strName = kName;
    const CStringData* const pBlock = strName.GetData();
    strName.CopyBeforeWrite();
    EXPECT_EQ(strName.GetData(), pBlock) << "was its own already";
    const CProbe strCopy(strName);
    strName.CopyBeforeWrite();
    EXPECT_NE(strName.GetData(), pBlock);
    EXPECT_STREQ(strName, kName);
    EXPECT_EQ(strName.GetData()->nRefs, 1);
    EXPECT_STREQ(strCopy, kName);
    EXPECT_EQ(strCopy.GetData()->nRefs, 1);
}

struct ViolationCase {
    int nRefs;  // count of the string's block
    void (*pViolate)(CProbe& strBroken);
    const char* szMessage;
};

TEST(CString, ABrokenInvariantStopsTheProcessAndSaysWhere) {
    constexpr ViolationCase kCases[] = {
        {1,
         [](CProbe& str) {
             str.m_pchData = nullptr;
             static_cast<void>(str.GetData());
         },
         "cstring.cpp: GetData: Assertion `m_pchData != __null' failed."},
        {0, [](CProbe& str) { static_cast<void>(CString(str)); },
         "cstring.cpp: CString: Assertion `stringSrc.GetData()->nRefs != 0' failed."},
        {1, [](CProbe& str) { str.AllocBuffer(-1); },
         "cstring.cpp: AllocBuffer: Assertion `nLen >= 0' failed."},
        {1, [](CProbe& str) { str.AllocBuffer(std::numeric_limits<int>::max()); },
         "cstring.cpp: AllocBuffer: Assertion `nLen <= 2147483647-1' failed."},
        {0, [](CProbe& str) { str.Release(); },
         "cstring.cpp: Release: Assertion `GetData()->nRefs != 0' failed."},
        {0, [](CProbe& str) { CProbe::Release(str.GetData()); },
         "cstring.cpp: Release: Assertion `pData->nRefs != 0' failed."}};
    for (const ViolationCase& c : kCases) {
        CProbe strBroken;
        strBroken = kName;
        strBroken.GetData()->nRefs = c.nRefs;
        EXPECT_EXIT(c.pViolate(strBroken), testing::KilledBySignal(SIGABRT),
                    testing::HasSubstr(c.szMessage));
        strBroken.GetData()->nRefs = 1;
    }
}

}  // namespace
