// The day's file: a ring of records in one file of bounded size, named after the date, and its move
// into the history when the day ends (docs/protocols.md, "Day's file").
//
// Threads: main opens and switches, the intake writes; both hold the object's own lock (Lock,
// Unlock) meanwhile. The file's name belongs to main.
#pragma once

#include <cstdint>
#include <string>

#include "core/Lock.h"
#include "logstore/LogRecord.h"

class CAPABILITY("log file") CLogFile {
public:
    CLogFile() = default;
    virtual ~CLogFile();  // closes the file
    CLogFile(const CLogFile&) = delete;
    CLogFile& operator=(const CLogFile&) = delete;

    int Lock() ACQUIRE() { return m_Lock.Lock(); }
    int Unlock() RELEASE() { return m_Lock.Unlock(); }

    // Full path of the file of today's local date.
    static std::string GetTodayLogFileName();

    // Closes what is open and opens today's file, which goes on where it stood or starts with an
    // empty header. 0: open; 5: no name; 10: it cannot be opened; 15: it holds no header that fits,
    // and is left as it is. After a failure no file is open. Failures are traced.
    int OpenLogFile() REQUIRES(this);

    // Stores records, 1 to kMostAheadOfHeader of them, in the next slots, in order, and then brings
    // the header up to date. 0: all are stored; 5: no file is open; 15: a record, 25: the header
    // was written short. The counter moves on all the same, so a slot that failed is skipped.
    int WriteRecords(const LogRecord* pRecords, std::size_t nRecords) REQUIRES(this);
    int WriteRecord(const LogRecord& record) REQUIRES(this) { return WriteRecords(&record, 1); }

    // Starts the file of the new date and moves the one before into the history, whose oldest file
    // goes when it holds more than three. When the new date's file is the one that was open,
    // nothing is moved or removed. 0: done as far as it could be started; errno of the history
    // directory that cannot be read; 5: the move could not be started. Failures are traced.
    int SwitchLogFile() EXCLUDES(this);

    // Path of the file opened last, also when that failed. For the thread that opens and switches.
    const std::string& GetFileName() const { return m_strFileName; }

private:
    bool LoadHeader() REQUIRES(this);
    int WriteHeader(std::uint32_t dwCount) const REQUIRES(this);
    std::uint32_t WriteRun(std::uint32_t dwFirst, const LogRecord* pRecords,
                           std::size_t nRecords) const REQUIRES(this);
    void CloseFile() REQUIRES(this);

    std::string m_strFileName;
    LogFileHeader m_Header GUARDED_BY(this) = {};
    int m_nFile GUARDED_BY(this) = -1;  // -1: none open
    CLock m_Lock;
};
