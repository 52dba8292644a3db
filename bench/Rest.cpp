#include "bench/Rest.h"

#include <fmt/format.h>

#include <string>

namespace {

std::int64_t WakeUpsOf(pid_t nPid) {
    std::int64_t nWakeUps = 0;
    for (const ThreadUse& use : UseOfProcess(nPid)) {
        nWakeUps += use.nWakeUps;
    }
    return nWakeUps;
}

}  // namespace

Memory MemoryOf(pid_t nPid) {
    const std::string strProcess = fmt::format("/proc/{}/", nPid);
    return {ProcNumber(strProcess + "status", "VmRSS:"),
            ProcNumber(strProcess + "smaps_rollup", "Pss:")};
}

CIdleMeter::CIdleMeter(pid_t nPid)
    : m_nPid(nPid), m_nBegin(NowNs()), m_nCpuNs(CpuNsOfProcess(nPid)), m_nWakeUps(WakeUpsOf(nPid)) {
}

IdleCost CIdleMeter::Read() const {
    const auto dElapsedNs = static_cast<double>(NowNs() - m_nBegin);
    const auto dCpuNs = static_cast<double>(CpuNsOfProcess(m_nPid) - m_nCpuNs);
    const auto dWakeUps = static_cast<double>(WakeUpsOf(m_nPid) - m_nWakeUps);
    return {100 * dCpuNs / dElapsedNs, 1e9 * dWakeUps / dElapsedNs};
}
