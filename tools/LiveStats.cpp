#include "tools/LiveStats.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "reading/IntakeCounters.h"
#include "reading/Output.h"
#include "support/MonoClock.h"

namespace {

constexpr std::int64_t kTurnMs = 1000;

// Waits until the end of a wait or a signal that ends the program; true at the signal.
bool EndsWithin(const sigset_t& setEnd, std::int64_t nMs) {
    timespec wait{};
    wait.tv_sec = static_cast<std::time_t>(nMs / 1000);
    wait.tv_nsec = static_cast<decltype(wait.tv_nsec)>(nMs % 1000 * 1000000);
    return sigtimedwait(&setEnd, nullptr, &wait) > 0;
}

struct Sums {
    std::uint64_t nStored = 0;
    std::uint64_t nDropped = 0;
};

class CLiveStats {
public:
    explicit CLiveStats(const LiveStatsOptions& options)
        : m_Options(options), m_nDroppedBefore(Port().nDropped) {
        m_Stored.Read();
    }

    // A look at both counters, and its line.
    void Look() {
        const UdpPortCounters port = Port();
        const Sums now{m_Stored.Read(), port.nDropped - m_nDroppedBefore};
        Print(now, {now.nStored - m_Sums.nStored, now.nDropped - m_Sums.nDropped},
              port.nWaitingBytes);
        m_Sums = now;
    }

    void PrintSums() {
        if (!m_Options.bJson) {
            fmt::format_to(std::back_inserter(m_Output.Buffer()),
                           "in all: {} stored, {} dropped by the kernel\n", m_Sums.nStored,
                           m_Sums.nDropped);
            m_Output.Flush();
        }
    }

private:
    UdpPortCounters Port() const {
        const auto port = ReadUdpPort(m_Options.wPort);
        if (!port) {
            throw std::runtime_error(fmt::format(
                "no program of this machine has UDP port {} open; does the service run?",
                m_Options.wPort));
        }
        return *port;
    }

    // {"time":"2026-11-22T14:05:09","stored":100,"dropped":0,"waiting_bytes":0,"stored_in_all":300,
    // "dropped_in_all":0}
    void Print(const Sums& sums, const Sums& turn, std::uint64_t nWaitingBytes) {
        const std::tm now = fmt::localtime(std::time(nullptr));
        const auto out = std::back_inserter(m_Output.Buffer());
        if (m_Options.bJson) {
            const nlohmann::ordered_json json = {{"time", fmt::format("{:%Y-%m-%dT%H:%M:%S}", now)},
                                                 {"stored", turn.nStored},
                                                 {"dropped", turn.nDropped},
                                                 {"waiting_bytes", nWaitingBytes},
                                                 {"stored_in_all", sums.nStored},
                                                 {"dropped_in_all", sums.nDropped}};
            fmt::format_to(out, "{}\n", json.dump());
        } else {
            fmt::format_to(out, "{:%H:%M:%S} {:>8} stored {:>8} dropped {:>9} bytes waiting\n", now,
                           turn.nStored, turn.nDropped, nWaitingBytes);
        }
        m_Output.Flush();
    }

    const LiveStatsOptions& m_Options;
    CStoredCounter m_Stored;
    const std::uint64_t m_nDroppedBefore;
    Sums m_Sums;
    COutput m_Output;
};

}  // namespace

int RunLiveStats(const LiveStatsOptions& options) {
    sigset_t setEnd;
    sigemptyset(&setEnd);
    sigaddset(&setEnd, SIGINT);
    sigaddset(&setEnd, SIGTERM);
    sigprocmask(SIG_BLOCK, &setEnd, nullptr);
    CLiveStats stats(options);
    const std::int64_t nBegin = MonotonicMs();
    const auto nLimit = static_cast<std::int64_t>(options.dSeconds * 1000);
    bool bEnd = false;
    for (std::int64_t nNext = nBegin + kTurnMs; !bEnd; nNext += kTurnMs) {
        const bool bLast = nLimit > 0 && nNext - nBegin >= nLimit;
        const std::int64_t nUntil = bLast ? nBegin + nLimit : nNext;
        bEnd = EndsWithin(setEnd, std::max<std::int64_t>(nUntil - MonotonicMs(), 0)) || bLast;
        stats.Look();
    }
    stats.PrintSums();
    return 0;
}
