#include "client/ClientLog.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "client/Utf8Cut.h"
#include "logstore/LogRecord.h"

static_assert(TARVIK_LOG_TEXT_BYTES == kRecordTextBytes - 1, "a NUL has to fit behind the text");
static_assert(TARVIK_LOG_REALTIME == kRealTimeType);

namespace tarvik {

namespace {

// Texts up to this are formatted without memory from the heap.
constexpr std::size_t kShortText = 1024;

// A record without text, with the local time of now.
LogRecord RecordOfNow(int nIndex, int nType) {
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    return StampedRecord(nIndex, nType, tmNow);
}

}  // namespace

int CClientLog::Open(CClientLog*& pLog, int nIndex, std::uint16_t wServicePort,
                     std::uint16_t wControlPort) {
    pLog = nullptr;
    // Not the operator new of the C++ run-time, which a C program would then have to link.
    void* const pMemory = std::malloc(sizeof(CClientLog));
    if (pMemory == nullptr) {
        return -ENOMEM;
    }
    auto* const pNew = new (pMemory) CClientLog(nIndex);
    int nError = pNew->m_Records.Open(wServicePort);
    if (nError == 0) {
        nError = pNew->m_Control.Open(nIndex, wControlPort);
    }
    if (nError != 0) {
        Close(pNew);
        return nError;
    }
    pLog = pNew;
    return 0;
}

void CClientLog::Close(CClientLog* pLog) {
    pLog->~CClientLog();
    std::free(pLog);
}

// Whether records of the type are to be sent now. Each call that logs comes by here, and so looks
// at the control port when it is time.
bool CClientLog::IsWanted(int nType) {
    return m_Control.Look() != 0 || nType != TARVIK_LOG_REALTIME;
}

int CClientLog::Print(int nType, const char* szFormat, std::va_list arguments) {
    if (!IsWanted(nType)) {
        return 0;
    }
    std::va_list again;
    va_copy(again, arguments);
    char szText[kShortText];
    const int nFormatted = std::vsnprintf(szText, sizeof(szText), szFormat, arguments);
    const auto nLen = static_cast<std::size_t>(nFormatted);
    int nResult = 0;
    if (nFormatted < 0) {
        nResult = -errno;
        m_Records.CountLost(1);
    } else if (nLen < sizeof(szText)) {
        nResult = SendText(nType, szText, nLen);
    } else {
        nResult = PrintLong(nType, nLen, szFormat, again);
    }
    va_end(again);
    return nResult;
}

int CClientLog::PrintLong(int nType, std::size_t nLen, const char* szFormat,
                          std::va_list arguments) {
    char* const szText = static_cast<char*>(std::malloc(nLen + 1));
    if (szText == nullptr) {
        m_Records.CountLost((nLen + TARVIK_LOG_TEXT_BYTES - 1) / TARVIK_LOG_TEXT_BYTES);
        return -ENOMEM;
    }
    // Shorter than before when another thread changes an argument meanwhile, but never longer.
    std::vsnprintf(szText, nLen + 1, szFormat, arguments);
    const int nResult = SendText(nType, szText, nLen);
    std::free(szText);
    return nResult;
}

int CClientLog::Write(int nType, const char* pText, std::size_t nLen) {
    return IsWanted(nType) ? SendText(nType, pText, nLen) : 0;
}

// Sends the text up to its first NUL; an empty one is a record too. The first error.
int CClientLog::SendText(int nType, const char* pText, std::size_t nLen) {
    LogRecord record = RecordOfNow(m_nIndex, nType);
    std::size_t nRest = strnlen(pText, nLen);
    int nResult = 0;
    do {
        const std::size_t nPiece = FirstPiece(pText, nRest, TARVIK_LOG_TEXT_BYTES);
        std::memcpy(record.szText, pText, nPiece);
        std::memset(record.szText + nPiece, 0, sizeof(record.szText) - nPiece);
        const int nError = m_Records.Send(record);
        nResult = nResult != 0 ? nResult : nError;
        pText += nPiece;
        nRest -= nPiece;
    } while (nRest > 0);
    return nResult;
}

}  // namespace tarvik
