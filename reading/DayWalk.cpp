#include "reading/DayWalk.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "support/SystemPath.h"

namespace {

// A file that was today's when it was listed may have moved to the history since.
std::unique_ptr<CDayStream> OpenWhereItIs(const std::string& strPath) {
    try {
        return std::make_unique<CDayStream>(strPath);
    } catch (const std::runtime_error&) {
        if (!strPath.starts_with(SystemPath(kLogDirectory))) {
            throw;
        }
        try {
            return std::make_unique<CDayStream>(SystemPath(kHistoryDirectory) + FileName(strPath));
        } catch (const std::runtime_error&) {
        }
        throw;  // the first error: that is the path that was meant
    }
}

}  // namespace

WalkEnd WalkRecords(CDayStream& stream, std::uint64_t nBegin, std::uint64_t nEnd,
                    EDirection eDirection, const RecordHandler& handler) {
    WalkEnd end;
    bool bRead = false;
    const LogRecord* pRecord = nullptr;
    for (std::uint64_t i = nBegin; i < nEnd; ++i) {
        const std::uint64_t nNumber =
            eDirection == EDirection::kForward ? i : nEnd - 1 - (i - nBegin);
        const ESlot eSlot = stream.Read(nNumber, pRecord);
        if (eSlot == ESlot::kOverwritten) {
            ++(bRead ? end.nMissed : end.nAhead);
            continue;
        }
        bRead = true;
        end.nBad += eSlot == ESlot::kNoRecord ? 1 : 0;
        if (eSlot == ESlot::kRecord && !handler({*pRecord, stream.Path(), nNumber})) {
            end.bWantsMore = false;
            break;
        }
    }
    return end;
}

bool CDayWalk::Open(std::size_t nFile) {
    try {
        m_pStream = OpenWhereItIs(m_Files[nFile].strPath);
        return true;
    } catch (const std::runtime_error& error) {
        m_pStream.reset();
        m_strOpenError = error.what();
        return false;
    }
}

bool CDayWalk::WalkStream(std::uint64_t nBegin, EDirection eDirection,
                          const RecordHandler& handler) {
    const WalkEnd end = WalkRecords(*m_pStream, std::max(nBegin, m_pStream->Begin()),
                                    m_pStream->End(), eDirection, handler);
    for (const std::string& strDamage : m_pStream->Damage()) {
        m_Complaints.Say(fmt::format("{}: {}", m_pStream->Path(), strDamage));
    }
    // What the ring loses ahead of the walk, or at the end of the way back, is its age.
    if (end.nMissed > 0 && eDirection == EDirection::kForward) {
        m_Complaints.Say(fmt::format("{}: {} records were overwritten before they could be read",
                                     m_pStream->Path(), end.nMissed));
    }
    return end.bWantsMore;
}

void CDayWalk::Forward(const Place& from, const RecordHandler& handler) {
    bool bWantsMore = true;
    for (std::size_t i = from.nFile; i < m_Files.size() && bWantsMore; ++i) {
        if (Open(i)) {
            bWantsMore =
                WalkStream(i == from.nFile ? from.nNumber : 0, EDirection::kForward, handler);
        } else {
            m_Complaints.Say(m_strOpenError);
        }
    }
}

void CDayWalk::Backward(const RecordHandler& handler) {
    bool bWantsMore = true;
    for (std::size_t i = m_Files.size(); i > 0 && bWantsMore; --i) {
        if (Open(i - 1)) {
            bWantsMore = WalkStream(0, EDirection::kBackward, handler);
        } else {
            m_Complaints.Say(m_strOpenError);
        }
    }
}

CDayWalk::Place CDayWalk::PlaceOfLast(std::uint64_t nLast, const RecordHandler& wanted) {
    Place place{m_Files.size() - 1, std::numeric_limits<std::uint64_t>::max()};
    std::uint64_t nFound = 0;
    for (std::size_t i = m_Files.size(); i > 0 && nFound < nLast; --i) {
        if (!Open(i - 1)) {
            continue;  // complained of on the way forward
        }
        const auto Count = [&](const FoundRecord& found) {
            if (wanted(found)) {
                place = {i - 1, found.nNumber};
                ++nFound;
            }
            return nFound < nLast;
        };
        WalkRecords(*m_pStream, m_pStream->Begin(), m_pStream->End(), EDirection::kBackward, Count);
    }
    return nFound < nLast ? Place{} : place;
}
