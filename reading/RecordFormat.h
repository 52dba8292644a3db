// The forms in which records are written out, one line each:
//
// short   2026-11-22 14:05:09 beta  error   link to eth0 is slow
// full    20261122.log:1 2026-11-22 14:05:09 beta[1] error[2] link to eth0 is slow
//         file and slot in front; index and type as they are in the record
// json    {"time":"2026-11-22T14:05:09","client":1,"name":"beta","type":2,"severity":"error",
//          "text":"link to eth0 is slow"}
//         all on one line; time is the record's own stamp, local time of the appliance; client and
//         type are the numbers in the record; severity is info, warning, error, debug or unknown
// csv     2026-11-22T14:05:09,1,beta,2,error,link to eth0 is slow
//         RFC 4180, with a header line and lines that end with CR LF
// syslog  <131>1 2026-11-22T14:05:09+01:00 host beta - - - link to eth0 is slow
//         RFC 5424, facility local0, severity by type; the offset is that of the local time zone at
//         that moment; "-" for a stamp that is no real time
//
// Of records that come from another host, its name stands in front in short, is a last member
// "appliance" in json, and is the host in syslog.
//
// What is no UTF-8 is replaced by U+FFFD everywhere. Control characters stand as dots in short,
// full and syslog; json escapes and csv quotes them.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "reading/ClientNames.h"
#include "reading/DayWalk.h"

class CRecordFormat {
public:
    CRecordFormat() = default;
    virtual ~CRecordFormat() = default;
    CRecordFormat(const CRecordFormat&) = delete;
    CRecordFormat& operator=(const CRecordFormat&) = delete;

    // What stands in front of all records.
    virtual void AppendHeader(fmt::memory_buffer&) {}

    // The record's line with its end.
    virtual void Append(fmt::memory_buffer& buffer, const FoundRecord& found) = 0;
};

// What a form needs to know besides the records.
struct FormContext {
    const CClientNames& names;  // lives as long as the form
    bool bColour = false;       // colours for a terminal, where the form is for people
    std::string strHost;        // what the records come from; empty: this machine, which only
                                // syslog names
};

// A form, as people choose it. One more is a row of the table and a class.
struct RecordForm {
    const char* szName;
    const char* szHelp;      // name and what to know about it, where records are shown
    const char* szLiveHelp;  // the same where live records are received; null: not usable there
    std::unique_ptr<CRecordFormat> (*pfnMake)(const FormContext& context);
};

// All of them; those that are usable for live records.
enum class EFormUse : std::uint8_t { kShow, kLive };
std::vector<const RecordForm*> RecordForms(EFormUse eUse);

// Their names, and what --help says: "short, json (lines) or syslog (RFC 5424)".
std::vector<std::string> RecordFormNames(EFormUse eUse);
std::string RecordFormHelp(EFormUse eUse);

// The form of that name. Throws std::invalid_argument when there is none.
std::unique_ptr<CRecordFormat> MakeRecordFormat(const std::string& strName,
                                                const FormContext& context);
