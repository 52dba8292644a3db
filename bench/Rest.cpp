#include "bench/Rest.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace {

// What a thread had used before; nothing when it was not there yet.
ThreadUse UseBefore(const std::vector<ThreadUse>& before, pid_t nTid) {
    const auto found = std::find_if(before.begin(), before.end(),
                                    [nTid](const ThreadUse& use) { return use.nTid == nTid; });
    return found == before.end() ? ThreadUse{} : *found;
}

}  // namespace

Json MemoryOf(pid_t nPid) {
    const std::string strProcess = fmt::format("/proc/{}/", nPid);
    return {{"rss", ProcNumber(strProcess + "status", "VmRSS:")},
            {"pss", ProcNumber(strProcess + "smaps_rollup", "Pss:")},
            {"pss_anonymous", ProcNumber(strProcess + "smaps_rollup", "Pss_Anon:")}};
}

CIdleMeter::CIdleMeter(pid_t nPid)
    : m_nPid(nPid),
      m_nBegin(NowNs()),
      m_nCpuNs(CpuNsOfProcess(nPid)),
      m_Before(UseOfProcess(nPid)) {
}

Json CIdleMeter::Read() const {
    const auto dElapsedNs = static_cast<double>(NowNs() - m_nBegin);
    const auto Percent = [&](std::int64_t nNs) {
        return Rounded(100 * static_cast<double>(nNs) / dElapsedNs);
    };
    Json threads = Json::array();
    double dAllWakeUps = 0;
    for (const ThreadUse& use : UseOfProcess(m_nPid)) {
        const ThreadUse before = UseBefore(m_Before, use.nTid);
        const double dWakeUps =
            1e9 * static_cast<double>(use.nWakeUps - before.nWakeUps) / dElapsedNs;
        dAllWakeUps += dWakeUps;
        threads.push_back({{"name", use.strName},
                           {"cpu_percent", Percent(use.nCpuNs - before.nCpuNs)},
                           {"wake_ups_per_s", Rounded(dWakeUps)}});
    }
    return {{"cpu_percent", Percent(CpuNsOfProcess(m_nPid) - m_nCpuNs)},
            {"wake_ups_per_s", Rounded(dAllWakeUps)},
            {"threads", threads}};
}
