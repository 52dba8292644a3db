// One configured log client, a program of the appliance that logs (docs/operations.md, "log.conf").
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

struct LogClientEntry {
    std::int32_t nIndex = 0;  // number of its configuration section; the index in its records
    std::int32_t nPort = 0;   // its control port; the low 16 bits are used
    char szAppName[52] = {};  // at most kMaxNameLen characters and a NUL

    static constexpr std::size_t kMaxNameLen = 50;

    // Takes the first kMaxNameLen characters of strName.
    void SetAppName(const std::string& strName) {
        std::memset(szAppName, 0, sizeof(szAppName));
        strName.copy(szAppName, kMaxNameLen);
    }
};
