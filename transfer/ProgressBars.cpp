#include "transfer/ProgressBars.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "reading/Output.h"
#include "support/MonoClock.h"

namespace {

constexpr std::size_t kMostBars = 8;
constexpr std::size_t kBarCells = 24;
constexpr std::size_t kBesideName = kBarCells + 23;  // columns that a line has besides the name
constexpr std::size_t kDefaultColumns = 80;
constexpr std::size_t kShortestName = 12;
constexpr std::int64_t kLineMs = 5000;   // between lines that stay
constexpr std::int64_t kSpeedMs = 1000;  // that the speed is a mean of

std::size_t TerminalColumns() {
    winsize size{};
    const bool bKnown = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return bKnown ? size.ws_col : kDefaultColumns;
}

// The end of a name tells more than its start: the file after the folder.
std::string LastOf(const std::string& strName, std::size_t nMost) {
    return strName.size() <= nMost ? strName : "..." + strName.substr(strName.size() - (nMost - 3));
}

}  // namespace

std::string MegaBytes(std::uint64_t nBytes) {
    return fmt::format("{:.1f} MB", static_cast<double>(nBytes) / 1e6);
}

CProgressBars::CProgressBars()
    : m_bTerminal(isatty(STDERR_FILENO) == 1),
      m_nShownMs(MonotonicMs()),
      m_nSpeedMs(MonotonicMs()) {
}

void CProgressBars::Show(const std::vector<ProgressItem>& items, std::uint64_t nFetched) {
    const std::int64_t nNow = MonotonicMs();
    if (nNow - m_nSpeedMs >= kSpeedMs) {
        m_dSpeed = static_cast<double>(nFetched - m_nFetched) * 1e3 /
                   static_cast<double>(nNow - m_nSpeedMs);
        m_nSpeedMs = nNow;
        m_nFetched = nFetched;
    }
    if (!m_bTerminal) {
        if (!items.empty() && nNow - m_nShownMs >= kLineMs) {
            Note(Summary(items));
            m_nShownMs = nNow;
        }
        return;
    }
    m_nColumns = TerminalColumns();
    std::vector<std::string> lines;
    if (items.size() > kMostBars) {
        lines.push_back(Summary(items).substr(0, m_nColumns - 1));
    } else {
        const std::size_t nName = NameColumns(items);
        std::transform(items.begin(), items.end(), std::back_inserter(lines),
                       [&](const ProgressItem& item) { return Bar(item, nName); });
    }
    Draw(lines);
}

void CProgressBars::Clear() {
    Draw({});
}

void CProgressBars::Note(const std::string& strLine) {
    Clear();
    SayError(strLine);
}

// As many as the longest name needs, or as are there.
std::size_t CProgressBars::NameColumns(const std::vector<ProgressItem>& items) const {
    std::size_t nLongest = 0;
    for (const ProgressItem& item : items) {
        nLongest = std::max(nLongest, item.strName.size());
    }
    const std::size_t nThere =
        m_nColumns > kBesideName + kShortestName ? m_nColumns - kBesideName : kShortestName;
    return std::min(nLongest, nThere);
}

std::string CProgressBars::Bar(const ProgressItem& item, std::size_t nName) const {
    const auto nFull = static_cast<std::size_t>(item.nDone * kBarCells / item.nSize);
    const std::string strLine = fmt::format(
        "{:<{}} [{:<{}}] {:>3} % of {}", LastOf(item.strName, nName), nName,
        std::string(nFull, '#'), kBarCells, item.nDone * 100 / item.nSize, MegaBytes(item.nSize));
    return strLine.substr(0, m_nColumns - 1);
}

std::string CProgressBars::Summary(const std::vector<ProgressItem>& items) const {
    std::uint64_t nDone = 0;
    std::uint64_t nSize = 0;
    for (const ProgressItem& item : items) {
        nDone += item.nDone;
        nSize += item.nSize;
    }
    return fmt::format("{} downloads: {} of {}, {}/s", items.size(), MegaBytes(nDone),
                       MegaBytes(nSize), MegaBytes(static_cast<std::uint64_t>(m_dSpeed)));
}

// The cursor rests at the start of the line below the last one drawn.
void CProgressBars::Draw(const std::vector<std::string>& lines) {
    if (!m_bTerminal || (lines.empty() && m_nDrawn == 0)) {
        return;
    }
    std::string strOut;
    if (m_nDrawn > 0) {
        strOut = fmt::format("\x1b[{}A\x1b[J", m_nDrawn);
    }
    for (const std::string& strLine : lines) {
        strOut += strLine + "\n";
    }
    std::fputs(strOut.c_str(), stderr);
    std::fflush(stderr);
    m_nDrawn = lines.size();
}
