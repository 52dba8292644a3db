#include "transfer/ReceiveLimits.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace {

constexpr unsigned kAddressBits = 32;

std::optional<unsigned> ParseBits(const std::string& strText) {
    unsigned nBits = 0;
    const char* const pEnd = strText.data() + strText.size();
    const auto [pRest, error] = std::from_chars(strText.data(), pEnd, nBits);
    const bool bGood = error == std::errc() && pRest == pEnd && nBits <= kAddressBits &&
                       (strText.size() == 1 || strText.front() != '0');
    return bGood ? std::optional<unsigned>(nBits) : std::nullopt;
}

// Bytes that are free on the disk of a directory that may still have to be made; all there can be
// where that cannot be told.
std::uint64_t FreeBytes(const std::string& strDirectory) {
    std::error_code error;
    auto path = std::filesystem::absolute(strDirectory, error);
    struct statvfs disk {};
    while (statvfs(path.c_str(), &disk) != 0) {
        if (!path.has_relative_path()) {
            return UINT64_MAX;
        }
        path = path.parent_path();
    }
    return std::uint64_t{disk.f_bavail} * disk.f_frsize;
}

}  // namespace

std::optional<AddressNet> ParseAddressNet(const std::string& strText) {
    const std::size_t nSlash = strText.find('/');
    in_addr address{};
    if (strText.find('\0') != std::string::npos ||
        inet_pton(AF_INET, strText.substr(0, nSlash).c_str(), &address) != 1) {
        return std::nullopt;
    }
    const auto nBits =
        nSlash == std::string::npos ? kAddressBits : ParseBits(strText.substr(nSlash + 1));
    if (!nBits) {
        return std::nullopt;
    }
    const AddressNet net{ntohl(address.s_addr),
                         *nBits == 0 ? 0 : UINT32_MAX << (kAddressBits - *nBits)};
    return net.Holds(net.dwAddress) ? std::optional<AddressNet>(net) : std::nullopt;
}

bool CPlaces::IsAllowed(std::uint32_t dwAddress) const {
    return m_Limits.allowed.empty() ||
           std::any_of(m_Limits.allowed.begin(), m_Limits.allowed.end(),
                       [dwAddress](const AddressNet& net) { return net.Holds(dwAddress); });
}

CPlaces::Verdict CPlaces::Judge(std::uint32_t dwAddress) const {
    if (!IsAllowed(dwAddress)) {
        return {Answer::kNotAllowed};
    }
    const auto itOwn = m_Counts.find(dwAddress);
    const Count own = itOwn == m_Counts.end() ? Count() : itOwn->second;
    if (own.nSessions >= m_Limits.nSessionsEach) {
        return {Answer::kTooManyOfAddress};
    }
    if (own.nPending >= m_Limits.nPendingEach) {
        return {Answer::kTooManyPendingOfAddress};
    }
    if (m_Total.nPending >= m_Limits.nPending) {
        return Displace(dwAddress, &Count::nPending);
    }
    if (m_Total.nSessions >= m_Limits.nSessions) {
        return Displace(dwAddress, &Count::nSessions);
    }
    return {Answer::kCome};
}

CPlaces::Verdict CPlaces::Displace(std::uint32_t dwAddress, std::size_t Count::*pCount) const {
    const auto itMost =
        std::max_element(m_Counts.begin(), m_Counts.end(), [&](const auto& one, const auto& other) {
            return one.second.*pCount < other.second.*pCount;
        });
    const auto itOwn = m_Counts.find(dwAddress);
    const std::size_t nOwn = itOwn == m_Counts.end() ? 0 : itOwn->second.*pCount;
    if (itMost == m_Counts.end() || itMost->second.*pCount < nOwn + 2) {
        return {Answer::kFull};
    }
    return {Answer::kDisplace, itMost->first, pCount == &Count::nPending};
}

void CPlaces::Enter(std::uint32_t dwAddress) {
    for (Count* const pCount : {&m_Counts[dwAddress], &m_Total}) {
        ++pCount->nSessions;
        ++pCount->nPending;
    }
}

void CPlaces::FinishHandshake(std::uint32_t dwAddress) {
    --m_Counts[dwAddress].nPending;
    --m_Total.nPending;
}

void CPlaces::Leave(std::uint32_t dwAddress, bool bPending) {
    Count& own = m_Counts[dwAddress];
    for (Count* const pCount : {&own, &m_Total}) {
        --pCount->nSessions;
        pCount->nPending -= bPending ? 1 : 0;
    }
    if (own.nSessions == 0) {
        m_Counts.erase(dwAddress);
    }
}

std::string CQuota::WhyNot(const std::string& strAddress, std::uint64_t nBytes,
                           const std::string& strInto) const {
    const auto itOwn = m_Used.find(strAddress);
    const std::uint64_t nOwn = itOwn == m_Used.end() ? 0 : itOwn->second.nBytes;
    if (nOwn + nBytes > m_Limits.nBytesEach) {
        return fmt::format("{} bytes more from this address are more than --max-bytes-each allows",
                           nBytes);
    }
    if (m_nBytes + nBytes > m_Limits.nBytes) {
        return fmt::format("{} bytes more are more than --max-bytes allows", nBytes);
    }
    const std::uint64_t nFree = FreeBytes(strInto);
    if (nFree < nBytes || nFree - nBytes < m_Limits.nKeepFree) {
        return fmt::format("{} bytes more do not fit, {} bytes are free (--keep-free)", nBytes,
                           nFree);
    }
    return {};
}

bool CQuota::AddBytes(const std::string& strAddress, std::uint64_t nBytes) {
    m_nBytes += nBytes;
    const std::uint64_t nOwn = m_Used[strAddress].nBytes += nBytes;
    return nOwn <= m_Limits.nBytesEach && m_nBytes <= m_Limits.nBytes;
}

bool CQuota::TakeFolder(const std::string& strAddress) {
    return ++m_Used[strAddress].nFolders <= m_Limits.nFoldersEach;
}

void CQuota::BeginDay() {
    m_Used.clear();
    m_nBytes = 0;
}

bool CToldOnce::May(const std::string& strKind, std::size_t nMost) {
    const auto itKnown = m_Told.find(strKind);
    if (itKnown != m_Told.end()) {
        return itKnown->second < nMost && ++itKnown->second <= nMost;
    }
    return m_Told.size() < kMostKinds && nMost > 0 && m_Told.emplace(strKind, 1).second;
}
