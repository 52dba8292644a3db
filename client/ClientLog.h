// A handle of the library, behind its C interface: makes records of texts and sends them.
//
// Threads: Close alone, all else from any at once.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "client/ControlInput.h"
#include "client/RecordSocket.h"
#include "client/tarvik_log.h"

namespace tarvik {

class CClientLog : public tarvik_log {
public:
    // See tarvik_log_open. nIndex: 0 to 99, wServicePort: not 0. Null in pLog on failure.
    [[nodiscard]] static int Open(CClientLog*& pLog, int nIndex, std::uint16_t wServicePort,
                                  std::uint16_t wControlPort);
    static void Close(CClientLog* pLog);

    // See tarvik_log_vprintf and tarvik_log_write; nType: 0 to 4.
    [[nodiscard]] int Print(int nType, const char* szFormat, std::va_list arguments);
    [[nodiscard]] int Write(int nType, const char* pText, std::size_t nLen);

    CRecordSocket& Records() { return m_Records; }
    CControlInput& Control() { return m_Control; }

private:
    explicit CClientLog(int nIndex) : m_nIndex(nIndex) { skip = 0; }
    ~CClientLog() = default;

    [[nodiscard]] bool IsWanted(int nType);
    [[nodiscard]] int PrintLong(int nType, std::size_t nLen, const char* szFormat,
                                std::va_list arguments);
    [[nodiscard]] int SendText(int nType, const char* pText, std::size_t nLen);

    int m_nIndex;
    CRecordSocket m_Records;
    CControlInput m_Control{skip};
};

}  // namespace tarvik
