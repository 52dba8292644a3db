// How far downloads are, on standard error: on a terminal a bar for each, redrawn in place, or one
// line for all when they are many; elsewhere such a line every few seconds. Lines that stay go
// through here too, so that bars and lines do not mix.
//
// Threads: an object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct ProgressItem {
    std::string strName;
    std::uint64_t nDone;
    std::uint64_t nSize;  // 1 or more
};

// "3.1 MB": nBytes in millions.
std::string MegaBytes(std::uint64_t nBytes);

class CProgressBars {
public:
    CProgressBars();
    ~CProgressBars() { Clear(); }
    CProgressBars(const CProgressBars&) = delete;
    CProgressBars& operator=(const CProgressBars&) = delete;

    // Shows the downloads that are active now; to be called a few times a second. nFetched: bytes
    // that came in all, ever.
    void Show(const std::vector<ProgressItem>& items, std::uint64_t nFetched);

    // Takes the bars off the terminal until the next Show.
    void Clear();

    // A line that stays. strLine is without a line feed.
    void Note(const std::string& strLine);

private:
    std::size_t NameColumns(const std::vector<ProgressItem>& items) const;
    std::string Bar(const ProgressItem& item, std::size_t nName) const;
    std::string Summary(const std::vector<ProgressItem>& items) const;
    void Draw(const std::vector<std::string>& lines);

    bool m_bTerminal;
    std::size_t m_nColumns = 0;    // of the terminal
    std::size_t m_nDrawn = 0;      // lines on the terminal that the next drawing replaces
    std::int64_t m_nShownMs;       // when the last one was shown that is no bar
    std::int64_t m_nSpeedMs;       // when the speed was measured
    std::uint64_t m_nFetched = 0;  // at that moment
    double m_dSpeed = 0;           // bytes a second
};
