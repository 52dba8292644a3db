// What takes what is received: live records as they come, files once they are here.
//
// Threads: an object belongs to the thread of the reception.
#pragma once

#include <cstdint>
#include <string>

#include "logstore/LogRecord.h"

class CRecordSink {
public:
    CRecordSink() = default;
    virtual ~CRecordSink() = default;
    CRecordSink(const CRecordSink&) = delete;
    CRecordSink& operator=(const CRecordSink&) = delete;

    // A live record. strAppliance: which one it comes from, as ApplianceName says. nPosition: 1 for
    // the first live record of its session, 2 for the next. What this or OnFile throws is no fault
    // of the session: the owner of the sink has to deal with it.
    virtual void OnRecord(const std::string& strAppliance, std::uint64_t nPosition,
                          const LogRecord& record) = 0;

    // A file that has arrived whole, under its final name.
    virtual void OnFile(const std::string& strAppliance, const std::string& strPath) = 0;
};
