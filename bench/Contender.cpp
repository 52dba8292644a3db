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

CDaemonContender::CDaemonContender(const CLogDaemon& daemon)
    : CContender(daemon.Pid(), daemon.Pid()),
      m_strOutput(daemon.OutputFile()),
      m_Senders{CSyslogSender(daemon.MessageHead(), daemon.Sender()),
                CSyslogSender(daemon.MessageHead(), daemon.Sender())} {
    PinProcess(daemon.Pid(), Processor::kAllButFirst);
}

bool CDaemonContender::HasNewestRecord() {
    const std::string strLast = m_Senders[0].LastText() + MessageEnd();
    const CUniqueFd file(open(NewestFile().c_str(), O_RDONLY | O_CLOEXEC));
    std::string strEnd(strLast.size(), '\0');
    const auto nBytes = static_cast<ssize_t>(strEnd.size());
    const off_t nEnd = lseek(file.Get(), -static_cast<off_t>(nBytes), SEEK_END);
    return pread(file.Get(), strEnd.data(), strEnd.size(), nEnd) == nBytes && strEnd == strLast;
}

void CLineContender::BeginLoad() {
    Stored();
    std::error_code none;  // no line has come yet
    std::filesystem::resize_file(m_strOutput, 0, none);
    m_nCounted = 0;
}

std::int64_t CLineContender::Stored() {
    const CUniqueFd file(open(m_strOutput.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, kLookBytes> piece;
    ssize_t nRead = 0;
    while ((nRead = pread(file.Get(), piece.data(), piece.size(), m_nCounted)) > 0) {
        m_nLines += std::count(piece.data(), piece.data() + nRead, '\n');
        m_nCounted += nRead;
    }
    return m_nLines;
}

std::vector<std::string> CFrameContender::Files() const {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(m_strOutput)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void CFrameContender::BeginLoad() {
    const std::vector<std::string> files = Files();
    for (std::size_t i = 0; i + 1 < files.size(); ++i) {
        m_nGone += std::filesystem::file_size(files[i]);
        std::filesystem::remove(files[i]);
    }
}

std::int64_t CFrameContender::Stored() {
    std::uintmax_t nBytes = m_nGone;
    for (const std::string& strFile : Files()) {
        nBytes += std::filesystem::file_size(strFile);
    }
    return static_cast<std::int64_t>(nBytes / m_nStoredBytes);
}

std::unique_ptr<CContender> MakeContender(const CLogDaemon& daemon) {
    if (daemon.StoredBytes() > 0) {
        return std::make_unique<CFrameContender>(daemon);
    }
    return std::make_unique<CLineContender>(daemon);
}
