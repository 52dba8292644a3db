#include "bench/PacedSender.h"

#include <cstdlib>

#include "bench/Measure.h"

namespace {

constexpr std::size_t kDigits = 10;
constexpr std::size_t kTextBytes = sizeof(kSampleText) - 1;

// Being later than this is the machine's doing and starts a new beat.
constexpr std::int64_t kMostBehindNs = 200'000;

}  // namespace

SendResult SendPaced(double dRate, double dSeconds, const std::function<void()>& send) {
    const double dGapNs = 1e9 / dRate;
    const std::int64_t nBegin = NowNs();
    const std::int64_t nEnd = nBegin + static_cast<std::int64_t>(dSeconds * 1e9);
    double dDueNs = 0;  // since nBegin
    SendResult result;
    std::int64_t nNow = nBegin;
    for (; nNow < nEnd; nNow = NowNs()) {
        const double dLateNs = static_cast<double>(nNow - nBegin) - dDueNs;
        if (dLateNs < 0) {
            continue;
        }
        if (dLateNs > kMostBehindNs) {
            dDueNs += dLateNs;
        }
        send();
        dDueNs += dGapNs;
        ++result.nSent;
    }
    result.dSeconds = static_cast<double>(nNow - nBegin) * 1e-9;
    return result;
}

CPacedSender::CPacedSender(std::uint16_t wPort, std::int32_t nType)
    : m_Client(wPort), m_Record(MakeRecord(0, nType, kSampleText)) {
}

void CPacedSender::SendOne() {
    ++m_nSent;
    // Counted up in place: what the sender costs comes off the rate that it can reach.
    char* pDigit = m_Record.szText + kTextBytes - 1;
    for (std::int64_t nLeft = m_nSent; nLeft > 0; nLeft /= 10) {
        *pDigit-- = static_cast<char>('0' + nLeft % 10);
    }
    m_Client.Send(m_Record);
}

std::string CPacedSender::LastText() const {
    return {m_Record.szText, kTextBytes};
}

std::int64_t NumberInText(const std::string& strText) {
    const std::size_t nMark = strText.rfind('#');
    if (nMark == std::string::npos || strText.size() < nMark + 1 + kDigits) {
        return -1;
    }
    return std::strtoll(strText.substr(nMark + 1, kDigits).c_str(), nullptr, 10);
}
