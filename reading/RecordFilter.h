// Which records are wanted: by client, type, time stamp and text.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <regex.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "logstore/LogRecord.h"
#include "reading/RecordTime.h"

class CRecordFilter {
public:
    // Of these clients and of these types; of all while none was added.
    void AddClient(std::int32_t nIndex) { m_Clients.push_back(nIndex); }
    void AddType(std::int32_t nType) { m_Types.push_back(nType); }

    // Stamped from nStamp on, or up to nStamp; the moment itself counts on both sides.
    void SetSince(TimeStamp nStamp) { m_nSince = nStamp; }
    void SetUntil(TimeStamp nStamp) { m_nUntil = nStamp; }

    // With a text in which the POSIX extended regular expression is found, in the locale of the
    // process. Returns what is wrong with the expression; empty: nothing.
    std::string SetPattern(const std::string& strPattern, bool bIgnoreCase);

    bool Accepts(const LogRecord& record) const;

private:
    struct RegexDeleter {
        void operator()(regex_t* pRegex) const {
            regfree(pRegex);
            delete pRegex;
        }
    };

    std::vector<std::int32_t> m_Clients;
    std::vector<std::int32_t> m_Types;
    TimeStamp m_nSince = 0;
    TimeStamp m_nUntil = std::numeric_limits<TimeStamp>::max();
    std::unique_ptr<regex_t, RegexDeleter> m_pRegex;  // null: every text
    std::string m_strLiteral;  // the expression, when it stands for nothing but itself
};
