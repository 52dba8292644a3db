// Follows today's file as it grows: across the end of the ring, and from day to day, when the file
// moves to the history and a new one begins.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "reading/Complaints.h"
#include "reading/DayDirectory.h"
#include "reading/DayWalk.h"
#include "support/UniqueFd.h"

class CDayFollower {
public:
    // listed: all days' files that were there when the walk over them began. pStream: the file in
    // which it ended; followed on from there when it is today's; null: none was there.
    CDayFollower(const std::vector<DayEntry>& listed, std::unique_ptr<CDayStream> pStream,
                 CComplaints& complaints);

    // Hands on what came since. Each record once, in the order of the service; how many were
    // overwritten before that is complained of.
    void Take(const RecordHandler& handler);

    // Waits until something may have come, at most a small part of a second. False: the reader of
    // standard output has gone.
    bool Wait();

private:
    void TakeRecords(const RecordHandler& handler);
    // Today's file, if it is another than the one that is followed; null: it is not.
    std::unique_ptr<CDayStream> FindNext();
    void TakeMissedDays(const RecordHandler& handler);
    void Follow(std::unique_ptr<CDayStream> pStream);

    CComplaints& m_Complaints;
    CUniqueFd m_Notices;                    // inotify, where there is one
    std::unique_ptr<CDayStream> m_pStream;  // followed; held open, so its id stays its own
    std::uint64_t m_nNext = 1;              // number of its record that comes next
    std::set<FileId> m_KnownToday;          // files in today's directory that were dealt with
    std::set<std::string> m_KnownDays;      // names of files in the history that were
};
