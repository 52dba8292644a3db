#include "bench/PacedSender.h"

#include <charconv>
#include <utility>

#include "bench/Measure.h"

namespace {

constexpr std::size_t kDigits = 10;
constexpr std::size_t kTextBytes = sizeof(kSampleText) - 1;

// Being later than this is the machine's doing and starts a new beat.
constexpr std::int64_t kMostBehindNs = 200'000;

// Writes a number over zeros, in place: what the sender costs comes off the rate that it can reach.
void WriteNumber(char* pLastDigit, std::int64_t nNumber) {
    for (; nNumber > 0; nNumber /= 10) {
        *pLastDigit-- = static_cast<char>('0' + nNumber % 10);
    }
}

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

CPacedSender::CPacedSender(std::uint16_t wPort, std::int32_t nType, int nClients)
    : m_Record(MakeRecord(0, nType, kSampleText)) {
    m_Clients.reserve(static_cast<std::size_t>(nClients));
    for (int i = 0; i < nClients; ++i) {
        m_Clients.emplace_back(wPort);
    }
}

void CPacedSender::SendOne() {
    ++m_nSent;
    WriteNumber(m_Record.szText + kTextBytes - 1, m_nSent);
    m_Record.nIndex = static_cast<std::int32_t>(m_nNext);
    m_Clients[m_nNext].Send(m_Record);
    m_nNext = m_nNext + 1 < m_Clients.size() ? m_nNext + 1 : 0;
}

std::string CPacedSender::LastText() const {
    return {m_Record.szText, kTextBytes};
}

CSyslogSender::CSyslogSender(const std::string& strHead, Send send)
    : m_strMessage(strHead + kSampleText), m_Send(std::move(send)) {
}

void CSyslogSender::SendOne() {
    ++m_nSent;
    WriteNumber(&m_strMessage.back(), m_nSent);
    m_Send(m_strMessage.data(), m_strMessage.size());
}

std::string CSyslogSender::LastText() const {
    return m_strMessage.substr(m_strMessage.size() - kTextBytes);
}

std::int64_t NumberInText(std::string_view strText) {
    const std::size_t nMark = strText.rfind('#');
    if (nMark == std::string::npos || strText.size() < nMark + 1 + kDigits) {
        return -1;
    }
    std::int64_t nNumber = -1;
    std::from_chars(strText.data() + nMark + 1, strText.data() + nMark + 1 + kDigits, nNumber);
    return nNumber;
}
