// Blocks, their counts and who may write into them.
#include "support/cstring.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace {

// With its NUL it still fits an int.
constexpr int kMaxLength = std::numeric_limits<int>::max() - 1;

struct EmptyBlock {
    CStringData data;
    char chNul;
};
static_assert(offsetof(EmptyBlock, chNul) == sizeof(CStringData));

constinit EmptyBlock emptyBlock{{-1, 0, 0}, '\0'};

// Stops the process unless a precondition of the calling operation holds.
void Require(bool bHolds, const char* szExpression, const char* szFunction = __builtin_FUNCTION()) {
    if (!bHolds) {
        std::fprintf(stderr, "cstring.cpp: %s: Assertion `%s' failed.\n", szFunction, szExpression);
        std::abort();
    }
}

char* Characters(CStringData* pData) {
    return reinterpret_cast<char*>(pData) + sizeof(CStringData);
}

}  // namespace

CStringData* const _afxDataNil = &emptyBlock.data;  // NOLINT(bugprone-reserved-identifier)

CString::CString() : m_pchData(Characters(_afxDataNil)) {
}

CString::CString(const CString& stringSrc) : CString() {
    Require(stringSrc.GetData()->nRefs != 0, "stringSrc.GetData()->nRefs != 0");
    if (stringSrc.GetData()->nRefs < 0) {
        *this = stringSrc.m_pchData;
        return;
    }
    Require(stringSrc.GetData() != _afxDataNil, "stringSrc.GetData() != _afxDataNil");
    Share(stringSrc);
}

CString::~CString() {
    Release();
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): a string shares its block with itself
CString& CString::operator=(const CString& stringSrc) {
    if (m_pchData == stringSrc.m_pchData) {
        return *this;
    }
    const bool bLocked = GetData()->nRefs < 0 && GetData() != _afxDataNil;
    if (bLocked || stringSrc.GetData()->nRefs < 0) {
        AssignCopy(stringSrc.GetData()->nDataLength, stringSrc.m_pchData);
        return *this;
    }
    Release();
    Require(stringSrc.GetData() != _afxDataNil, "stringSrc.GetData() != _afxDataNil");
    Share(stringSrc);
    return *this;
}

CString& CString::operator=(const char* szText) {
    constexpr std::size_t kLongest = std::numeric_limits<int>::max();  // too long: refused below
    const std::size_t nLen = szText == nullptr ? 0 : std::strlen(szText);
    AssignCopy(static_cast<int>(std::min(nLen, kLongest)), szText);
    return *this;
}

CStringData* CString::GetData() const {
    Require(m_pchData != nullptr, "m_pchData != __null");
    return reinterpret_cast<CStringData*>(m_pchData - sizeof(CStringData));
}

void CString::AllocBuffer(int nLen) {
    Require(nLen >= 0, "nLen >= 0");
    Require(nLen <= kMaxLength, "nLen <= 2147483647-1");
    if (nLen == 0) {
        m_pchData = Characters(_afxDataNil);
        return;
    }
    void* pBlock = ::operator new(sizeof(CStringData) + static_cast<std::size_t>(nLen) + 1);
    m_pchData = Characters(new (pBlock) CStringData{1, nLen, nLen});
    m_pchData[nLen] = '\0';
}

void CString::Release() {
    if (GetData() == _afxDataNil) {
        return;
    }
    Require(GetData()->nRefs != 0, "GetData()->nRefs != 0");
    Release(GetData());
    m_pchData = Characters(_afxDataNil);
}

void CString::Release(CStringData* pData) {
    if (pData == _afxDataNil) {
        return;
    }
    Require(pData->nRefs != 0, "pData->nRefs != 0");
    if (--pData->nRefs < 1) {
        ::operator delete(pData);
    }
}

void CString::AllocBeforeWrite(int nLen) {
    if (GetData()->nRefs > 1 || nLen > GetData()->nAllocLength) {
        Release();
        AllocBuffer(nLen);
    }
    Require(GetData()->nRefs <= 1, "GetData()->nRefs <= 1");
}

void CString::CopyBeforeWrite() {
    CStringData* const pShared = GetData();
    if (pShared->nRefs > 1) {
        Release();  // the other strings keep the block alive
        AllocBuffer(pShared->nDataLength);
        std::memcpy(m_pchData, Characters(pShared),
                    static_cast<std::size_t>(pShared->nDataLength) + 1);
    }
    Require(GetData()->nRefs <= 1, "GetData()->nRefs <= 1");
}

void CString::AssignCopy(int nLen, const char* szSource) {
    AllocBeforeWrite(nLen);
    if (GetData() == _afxDataNil) {
        return;  // already what is wanted, and other threads may look at it
    }
    if (nLen > 0) {
        std::memmove(m_pchData, szSource, static_cast<std::size_t>(nLen));
    }
    GetData()->nDataLength = nLen;
    m_pchData[nLen] = '\0';
}

void CString::Share(const CString& stringSrc) {
    m_pchData = stringSrc.m_pchData;
    ++GetData()->nRefs;
}
