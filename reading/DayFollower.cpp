#include "reading/DayFollower.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "reading/Counted.h"
#include "support/SystemPath.h"

namespace {

constexpr int kLookMs = 100;  // between looks without a notice: where inotify does not work
// Records that come in quick succession are taken together: a reader must not eat up the processor.
constexpr auto kGatherTime = std::chrono::milliseconds(5);

bool IsIn(const std::string& strPath, const char* szDirectory) {
    return strPath.starts_with(SystemPath(szDirectory));
}

std::vector<DayEntry> ListQuietly(const char* szDirectory) {
    try {
        return DayFilesIn(szDirectory);
    } catch (const std::runtime_error&) {
        return {};  // may come yet
    }
}

}  // namespace

CDayFollower::CDayFollower(const std::vector<DayEntry>& listed, std::unique_ptr<CDayStream> pStream,
                           CComplaints& complaints)
    : m_Complaints(complaints), m_Notices(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    for (const DayEntry& entry : listed) {
        if (IsIn(entry.strPath, kLogDirectory)) {
            m_KnownToday.insert(entry.id);
        }
        m_KnownDays.insert(FileName(entry.strPath));
    }
    if (pStream != nullptr && m_KnownToday.count(pStream->Id()) != 0) {
        m_nNext = pStream->End();
        m_pStream = std::move(pStream);
    }
}

void CDayFollower::Take(const RecordHandler& handler) {
    // Once there is a next file, nothing more is written into this one: found first, then read.
    std::unique_ptr<CDayStream> pNext = FindNext();
    TakeRecords(handler);
    while (pNext != nullptr) {
        TakeMissedDays(handler);
        Follow(std::move(pNext));
        pNext = FindNext();
        TakeRecords(handler);
    }
}

void CDayFollower::TakeRecords(const RecordHandler& handler) {
    if (m_pStream == nullptr) {
        return;
    }
    m_pStream->Refresh();
    if (m_pStream->End() < m_nNext) {
        m_nNext = 1;  // somebody has emptied the file
    }
    const std::uint64_t nBegin = std::max(m_nNext, m_pStream->Begin());
    const WalkEnd end =
        WalkRecords(*m_pStream, nBegin, m_pStream->End(), EDirection::kForward, handler);
    const std::uint64_t nMissed = nBegin - m_nNext + end.nAhead + end.nMissed;
    m_nNext = m_pStream->End();
    if (nMissed > 0) {
        m_Complaints.Say(Counted(nMissed, "record was", "records were") +
                         " overwritten before they could be shown");
    }
    if (end.nBad > 0) {
        m_Complaints.Say(fmt::format("{}: {} without a record", m_pStream->Path(),
                                     Counted(end.nBad, "slot", "slots")));
    }
}

std::unique_ptr<CDayStream> CDayFollower::FindNext() {
    const std::vector<DayEntry> files = ListQuietly(kLogDirectory);
    std::set<FileId> known;
    for (const DayEntry& entry : files) {
        if (m_KnownToday.count(entry.id) != 0) {
            known.insert(entry.id);
        }
    }
    m_KnownToday = std::move(known);  // the id of a file that is gone may be used again
    for (const DayEntry& entry : files) {
        if (m_KnownToday.count(entry.id) != 0 ||
            (m_pStream != nullptr && m_pStream->Id() == entry.id)) {
            continue;
        }
        try {
            auto pStream = std::make_unique<CDayStream>(entry.strPath);
            if (pStream->HasHeader()) {  // else: it is just being made
                return pStream;
            }
        } catch (const std::runtime_error&) {
            // gone again
        }
    }
    return nullptr;
}

// Days that came and went while this process was stopped.
void CDayFollower::TakeMissedDays(const RecordHandler& handler) {
    for (const DayEntry& entry : ListQuietly(kHistoryDirectory)) {
        if (m_KnownDays.insert(FileName(entry.strPath)).second) {
            CDayWalk({entry}, m_Complaints).Forward({}, handler);
        }
    }
}

void CDayFollower::Follow(std::unique_ptr<CDayStream> pStream) {
    m_pStream = std::move(pStream);
    m_nNext = 1;
    m_KnownToday.insert(m_pStream->Id());
    m_KnownDays.insert(FileName(m_pStream->Path()));
}

bool CDayFollower::Wait() {
    // Anew each time: the directory may have been replaced. The same directory stays the same
    // watch.
    inotify_add_watch(m_Notices.Get(), SystemPath(kLogDirectory).c_str(),
                      IN_MODIFY | IN_CREATE | IN_MOVED_TO);
    std::array<pollfd, 2> wait = {{{m_Notices.Get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
    if (poll(wait.data(), wait.size(), kLookMs) <= 0) {
        return true;
    }
    if (wait[1].revents != 0) {
        return false;
    }
    std::this_thread::sleep_for(kGatherTime);
    std::array<char, 4096> notices;
    while (read(m_Notices.Get(), notices.data(), notices.size()) > 0) {
    }
    return true;
}
