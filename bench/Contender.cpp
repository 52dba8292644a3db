#include "bench/Contender.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <numeric>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "bench/Measure.h"
#include "peers/DayFile.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::size_t kLookBytes = 65536;

}  // namespace

std::int64_t Total(const std::vector<std::int64_t>& counts) {
    return std::accumulate(counts.begin(), counts.end(), std::int64_t{0});
}

Load CContender::Run(double dRate, double dSeconds, int nSenders) {
    BeginLoad();
    const std::int64_t nStoredBefore = Stored();
    const std::int64_t nCpuBefore = CpuNsOfProcess(m_nPid);
    const std::int64_t nIntakeBefore = UseOfThread(m_nPid, m_nTid).nCpuNs;
    const SendResult sent = SendAll(dRate, dSeconds, nSenders);
    const std::int64_t nStored =
        WaitCount([this] { return Stored(); }, nStoredBefore + sent.nSent) - nStoredBefore;
    const auto UsPerRecord = [nStored](std::int64_t nNs) {
        return static_cast<double>(nNs) * 1e-3 /
               static_cast<double>(std::max<std::int64_t>(nStored, 1));
    };
    return {sent.Rate(),
            sent.nSent,
            nStored,
            UsPerRecord(CpuNsOfProcess(m_nPid) - nCpuBefore),
            UsPerRecord(UseOfThread(m_nPid, m_nTid).nCpuNs - nIntakeBefore),
            100 * static_cast<double>(sent.nSent - nStored) / static_cast<double>(sent.nSent)};
}

SendResult CContender::SendAll(double dRate, double dSeconds, int nSenders) {
    SendResult second;
    std::thread other;
    if (nSenders > 1) {
        other = std::thread([&] {
            PinThread(0, Processor::kAny);
            second = SendPaced(dRate, dSeconds, [this] { SendOne(1); });
        });
    }
    SendResult sent = SendPaced(dRate, dSeconds, [this] { SendOne(0); });
    if (other.joinable()) {
        other.join();
    }
    sent.nSent += second.nSent;
    return sent;
}

HighestRate CContender::SearchHighestRate(double dSeconds) {
    return FindHighestRate([&](double dRate) {
        const Load load = Run(dRate, dSeconds);
        return RateTry{load.dRate, load.KeptAll()};
    });
}

CRecordContender::CRecordContender(const Intake& intake, int nClients)
    : CContender(intake.nPid, intake.nTid),
      m_Intake(intake),
      m_Senders{CPacedSender(intake.wPort, 0, nClients), CPacedSender(intake.wPort, 0, nClients)} {
    PinThread(intake.nTid, Processor::kLast);
}

bool CRecordContender::HasNewestRecord() {
    const DayFile day = ReadDayFile(m_Intake.strFile);
    return !day.records.empty() && RecordText(day.records.back()) == m_Senders[0].LastText();
}

CLineContender::CLineContender(const CLogDaemon& daemon)
    : CContender(daemon.Pid(), daemon.Pid()),
      m_strFile(daemon.OutputFile()),
      m_Senders{CSyslogSender(daemon.MessageHead(), daemon.Sender()),
                CSyslogSender(daemon.MessageHead(), daemon.Sender())} {
    PinProcess(daemon.Pid(), Processor::kAllButFirst);
}

void CLineContender::BeginLoad() {
    Stored();
    std::error_code none;  // no line has come yet
    std::filesystem::resize_file(m_strFile, 0, none);
    m_nCounted = 0;
}

std::int64_t CLineContender::Stored() {
    const CUniqueFd file(open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, kLookBytes> piece;
    ssize_t nRead = 0;
    while ((nRead = pread(file.Get(), piece.data(), piece.size(), m_nCounted)) > 0) {
        m_nLines += std::count(piece.data(), piece.data() + nRead, '\n');
        m_nCounted += nRead;
    }
    return m_nLines;
}

bool CLineContender::HasNewestRecord() {
    const std::string strLast = m_Senders[0].LastText() + "\n";
    const CUniqueFd file(open(m_strFile.c_str(), O_RDONLY | O_CLOEXEC));
    std::string strEnd(strLast.size(), '\0');
    const auto nBytes = static_cast<ssize_t>(strEnd.size());
    const off_t nEnd = lseek(file.Get(), -static_cast<off_t>(nBytes), SEEK_END);
    return pread(file.Get(), strEnd.data(), strEnd.size(), nEnd) == nBytes && strEnd == strLast;
}
