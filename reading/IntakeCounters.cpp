#include "reading/IntakeCounters.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "reading/DayDirectory.h"
#include "reading/DayStream.h"
#include "support/SystemPath.h"

namespace {

// Records that a day's file was given so far; nothing when it has no header. Its counter says more
// than that: it skips the header's place each time round.
std::optional<std::uint64_t> RecordsGiven(const std::string& strPath) {
    try {
        const CDayStream stream(strPath);
        return stream.HasHeader() ? std::optional(stream.End() - 1) : std::nullopt;
    } catch (const std::runtime_error&) {
        return std::nullopt;
    }
}

// The number behind the colon of "00000000:07BE"; 0 without one.
std::uint64_t HexBehindColon(const std::string& strText) {
    const std::size_t nColon = strText.find(':');
    return nColon == std::string::npos ? 0 : std::stoull(strText.substr(nColon + 1), nullptr, 16);
}

}  // namespace

std::optional<UdpPortCounters> ReadUdpPort(std::uint16_t wPort) {
    return ReadUdpTable("/proc/net/udp", wPort);
}

std::optional<UdpPortCounters> ReadUdpTable(const std::string& strPath, std::uint16_t wPort) {
    // Columns: number, local address, remote address, state, queues, timer, retries, user,
    // time-out, inode, references, place in the kernel, drops.
    constexpr std::size_t kLocal = 1;
    constexpr std::size_t kQueues = 4;
    constexpr std::size_t kDrops = 12;
    std::ifstream table(strPath);
    std::optional<UdpPortCounters> counters;
    std::string strLine;
    std::getline(table, strLine);  // the titles
    while (std::getline(table, strLine)) {
        std::istringstream line(strLine);
        const std::vector<std::string> columns{std::istream_iterator<std::string>(line), {}};
        if (columns.size() <= kDrops || HexBehindColon(columns[kLocal]) != wPort) {
            continue;
        }
        UdpPortCounters sum = counters.value_or(UdpPortCounters{});
        sum.nWaitingBytes += HexBehindColon(columns[kQueues]);
        sum.nDropped += std::stoull(columns[kDrops]);
        counters = sum;
    }
    return counters;
}

// The file of a day that has ended is in the history, with what was stored since the last call.
std::uint64_t CStoredCounter::Read() {
    const std::vector<DayEntry> today = DayFilesIn(kLogDirectory);
    if (today.empty()) {
        throw std::runtime_error(
            fmt::format("{}: no day's file; does the service run?", SystemPath(kLogDirectory)));
    }
    const std::string& strPath = today.back().strPath;
    const std::optional<std::uint64_t> nGiven = RecordsGiven(strPath);
    if (!nGiven) {
        throw std::runtime_error(fmt::format("{}: no header of a day's file", strPath));
    }
    if (m_strPath.empty()) {
        m_nGiven = *nGiven;
    } else if (strPath != m_strPath) {
        const auto nLast = RecordsGiven(SystemPath(kHistoryDirectory) + FileName(m_strPath));
        m_nStored += std::max(nLast.value_or(m_nGiven), m_nGiven) - m_nGiven;
        m_nGiven = 0;
    } else if (*nGiven < m_nGiven) {  // the file was begun anew
        m_nGiven = 0;
    }
    m_nStored += *nGiven - m_nGiven;
    m_nGiven = *nGiven;
    m_strPath = strPath;
    return m_nStored;
}
