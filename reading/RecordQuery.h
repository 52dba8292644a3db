// What a person asks of the day's files: which files, which records, whose names. The words are
// those of the person; the operations say what they mean.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reading/ClientNames.h"
#include "reading/Complaints.h"
#include "reading/DayDirectory.h"
#include "reading/RecordFilter.h"

struct RecordQuery {
    std::vector<std::string> files;       // none: all days
    std::string strConfig;                // empty: log.conf of this machine, if there is one
    std::vector<std::string> clients;     // by name or index; none: all
    std::vector<std::string> types;       // by name or number; none: all
    std::optional<std::string> strSince;  // times as ParseTime has them
    std::optional<std::string> strUntil;
    std::optional<std::string> strPattern;  // extended regular expression
    bool bIgnoreCase = false;               // of the pattern

    // Both throw WrongUse, naming what makes no sense.
    CClientNames Names() const;
    CRecordFilter Filter(const CClientNames& names) const;

    // The files given, in that order, or all days.
    std::vector<DayEntry> FilesToRead(CComplaints& complaints) const;
};

// The type, and the clients, that a person means. Both throw WrongUse when there are none such.
std::int32_t TypeIn(const std::string& strText);
std::vector<std::int32_t> ClientsIn(const std::string& strText, const CClientNames& names);
