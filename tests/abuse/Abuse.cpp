#include "abuse/Abuse.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "peers/ReadWhole.h"
#include "peers/Service.h"
#include "support/MonoClock.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kWeighMemory = false;  // a sanitizer keeps what is freed for a while
#else
constexpr bool kWeighMemory = true;
#endif

}  // namespace

PeerBytes CDice::Bytes(std::size_t nBytes) {
    PeerBytes bytes(nBytes);
    std::generate(bytes.begin(), bytes.end(),
                  [this] { return static_cast<std::uint8_t>(Below(256)); });
    return bytes;
}

CWatch::CWatch(std::string strWhat, pid_t nPid, std::uint64_t nMostKb)
    : m_strWhat(std::move(strWhat)),
      m_nPid(nPid),
      m_nMostKb(nMostKb),
      m_nDescriptors(Descriptors()),
      m_nSinceMs(MonotonicMs()) {
}

void CWatch::Step(std::uint64_t nDone, std::uint64_t nAll) {
    if (m_nQuarterKb == 0 && nDone >= nAll / 4) {
        m_nQuarterKb = MemoryKb();
    }
}

bool CWatch::Report(const std::string& strDone) {
    const bool bClosed = WaitUntil([this] { return Descriptors() <= m_nDescriptors; });
    const std::uint64_t nEndKb = MemoryKb();
    const bool bFlat = !kWeighMemory || nEndKb <= m_nQuarterKb + m_nMostKb;
    fmt::print("{:<24} {:>42}, {:>5} s, memory {:>6} KB after a quarter, {:>6} KB at the end{}{}\n",
               m_strWhat, strDone, (MonotonicMs() - m_nSinceMs) / 1000, m_nQuarterKb, nEndKb,
               bFlat ? "" : ": GROWN", bClosed ? "" : "; DESCRIPTORS STAY OPEN");
    std::fflush(stdout);
    return bFlat && bClosed;
}

std::uint64_t CWatch::MemoryKb() const {
    const std::string strStatus = ReadWhole(fmt::format("/proc/{}/status", m_nPid));
    const std::size_t nLine = strStatus.find("VmRSS:");
    if (nLine == std::string::npos) {
        throw std::runtime_error(m_strWhat + ": the program has ended");
    }
    return std::stoull(strStatus.substr(nLine + 6));
}

std::size_t CWatch::Descriptors() const {
    const std::filesystem::directory_iterator all(fmt::format("/proc/{}/fd", m_nPid));
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}
