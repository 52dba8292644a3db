// A walk over the records of several day's files, in either direction, one file open at a time.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "logstore/LogRecord.h"
#include "reading/Complaints.h"
#include "reading/DayDirectory.h"
#include "reading/DayStream.h"

// A record and where it lies.
struct FoundRecord {
    const LogRecord& record;
    const std::string& strPath;
    std::uint64_t nNumber;  // as CDayStream counts
};

// Whether the walk is to go on.
using RecordHandler = std::function<bool(const FoundRecord&)>;

struct WalkEnd {
    bool bWantsMore = true;     // false: the handler had enough
    std::uint64_t nAhead = 0;   // records that were overwritten before the first that was read
    std::uint64_t nMissed = 0;  // overwritten in between
    std::uint64_t nBad = 0;     // slots without a record
};

// Hands on the records nBegin to nEnd - 1 of a file, in that order, or from the last to the first.
enum class EDirection { kForward, kBackward };
WalkEnd WalkRecords(CDayStream& stream, std::uint64_t nBegin, std::uint64_t nEnd,
                    EDirection eDirection, const RecordHandler& handler);

class CDayWalk {
public:
    struct Place {
        std::size_t nFile = 0;      // index in the list of files
        std::uint64_t nNumber = 0;  // of a record in it; 0: its oldest
    };

    // files: oldest first. What is wrong with them is complained of as each is left behind.
    CDayWalk(std::vector<DayEntry> files, CComplaints& complaints)
        : m_Files(std::move(files)), m_Complaints(complaints) {}

    // From a place to the newest record; the other way, all records, the newest first.
    void Forward(const Place& from, const RecordHandler& handler);
    void Backward(const RecordHandler& handler);

    // The place from which nLast records are left of those that wanted() accepts, or the oldest.
    // Nothing is complained of.
    Place PlaceOfLast(std::uint64_t nLast, const RecordHandler& wanted);

    // The file in which the walk ended, still open; null: in none.
    std::unique_ptr<CDayStream> TakeStream() { return std::move(m_pStream); }

private:
    // False: the file cannot be opened.
    bool Open(std::size_t nFile);
    // Walks over the open file from a number on and complains of what is wrong with it. False: the
    // handler had enough.
    bool WalkStream(std::uint64_t nBegin, EDirection eDirection, const RecordHandler& handler);

    std::vector<DayEntry> m_Files;
    CComplaints& m_Complaints;
    std::unique_ptr<CDayStream> m_pStream;
    std::string m_strOpenError;
};
