// Byte string whose characters are shared between copies and copied only when a copy is about to
// change. It does what the names of the message queue's errors need, no more.
//
// Threads: counts are plain integers, so a string and its copies belong to one thread at a time.
#pragma once

#include <cstdint>

// Header of a block; the characters and their NUL stand behind it.
struct CStringData {
    std::int32_t nRefs;         // strings that share the block; -1: the shared empty representation
    std::int32_t nDataLength;   // characters in use, without the NUL
    std::int32_t nAllocLength;  // characters that the block can hold, without the NUL
};
static_assert(sizeof(CStringData) == 12);

// The block of strings that hold nothing: never written, counted or freed.
extern CStringData* const _afxDataNil;  // NOLINT(bugprone-reserved-identifier)

// What the operations demand is checked in every build: a violation is our own mistake and stops
// the process, with the expression, this class's source file and the function on standard error.
class CString {
public:
    CString();
    ~CString();

    // A copy shares the block of stringSrc, unless that is the empty one.
    CString(const CString& stringSrc);
    CString& operator=(const CString& stringSrc);

    // Copies the characters of szText, which may lie inside this string; null counts as "".
    CString& operator=(const char* szText);

    // The characters with their NUL; valid until the string is changed or destroyed.
    operator const char*() const { return m_pchData; }

    CStringData* GetData() const;                                   // never null
    int GetLength() const { return GetData()->nDataLength; }        // in bytes
    int GetAllocLength() const { return GetData()->nAllocLength; }  // in bytes
    bool IsEmpty() const { return GetData()->nDataLength == 0; }

protected:
    // Points the string at a new block of nLen characters, their number 0 to 2147483646, of which
    // only the NUL behind them is set; for 0 at _afxDataNil. The block held before is not released.
    void AllocBuffer(int nLen);

    // Gives up this string's share of its block and leaves the string empty.
    void Release();

    // Takes one from the count of the block, which is freed when no string shares it any more.
    static void Release(CStringData* pData);

    // Afterwards the block is this string's own and has room for nLen characters. What it holds is
    // kept only when it was so before.
    void AllocBeforeWrite(int nLen);

    // Afterwards the block is this string's own, with the same characters.
    void CopyBeforeWrite();

    // Copies nLen characters, which may lie inside this string's block.
    void AssignCopy(int nLen, const char* szSource);

    // First character of the block. Characters change only while no other string shares them.
    char* m_pchData;

private:
    void Share(const CString& stringSrc);
};
static_assert(sizeof(CString) == sizeof(char*));
