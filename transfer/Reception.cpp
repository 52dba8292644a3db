#include "transfer/Reception.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <limits>
#include <stdexcept>

namespace {

constexpr std::int32_t kRingBytes = 1024;  // holds a whole frame, at most kUmMaxFrameBytes

[[noreturn]] void Refuse(const std::string& strWhat) {
    throw std::runtime_error(strWhat);
}

}  // namespace

std::string ApplianceName(const std::string& strAddress, const UploadInfo& info) {
    std::string strName = strAddress;
    if (info.byNode != 0) {
        strName += fmt::format("-node{:02x}", info.byNode);
    }
    const bool bInfo3 =
        std::any_of(info.info3.begin(), info.info3.end(), [](std::uint8_t by) { return by != 0; });
    if (info.dwInfo1 != 0 || info.dwInfo2 != 0 || bInfo3) {
        strName += fmt::format("-{:08x}{:08x}{:02x}", info.dwInfo1, info.dwInfo2,
                               fmt::join(info.info3, ""));
    }
    return strName;
}

CReception::CReception(const ReceiveJob& job, const Events& events, CQuota& quota,
                       const std::string& strAddress)
    : m_Job(job),
      m_Events(events),
      m_Quota(quota),
      m_strAddress(strAddress),
      m_strName(strAddress),
      m_strFolder(job.strInto),
      m_Ring(kRingBytes) {
}

void CReception::Take(const std::uint8_t* pBytes, std::size_t nLen) {
    while (nLen > 0) {
        const bool bDirect = m_ePhase == Phase::kFile && m_Ring.GetUsed() == 0;
        const std::size_t nTaken =
            bDirect ? TakeFileBytes(pBytes, nLen) : TakeIntoRing(pBytes, nLen);
        pBytes += nTaken;
        nLen -= nTaken;
    }
}

std::size_t CReception::TakeFileBytes(const std::uint8_t* pBytes, std::size_t nLen) {
    const auto nTaken =
        static_cast<std::size_t>(std::min<std::uint64_t>(nLen, m_pDownload->Missing()));
    if (nTaken > 0 && m_pDownload->Done() == 0) {
        CheckFolder();
    }
    if (!m_Quota.AddBytes(m_strAddress, nTaken)) {
        RefuseByQuota("all has come that --max-bytes or --max-bytes-each allow a day");
    }
    m_pDownload->Write(pBytes, nTaken);
    m_Result.nBytes += nTaken;
    if (m_pDownload->Missing() == 0) {
        m_pDownload->Finish();
        ++m_Result.nFiles;
        const std::uint64_t nHeld = m_pDownload->Start();
        m_Events.fnNote(
            m_strName,
            fmt::format("{}: {} bytes{}", m_pDownload->Name(), m_pDownload->Size(),
                        nHeld > 0 ? fmt::format(", {} of them held before", nHeld) : ""));
        if (m_Events.pSink != nullptr) {
            m_Events.pSink->OnFile(m_strName, m_pDownload->Path());
        }
        m_pDownload.reset();
        NextFile();
    }
    return nTaken;
}

std::size_t CReception::TakeIntoRing(const std::uint8_t* pBytes, std::size_t nLen) {
    const auto nTaken = std::min(nLen, static_cast<std::size_t>(m_Ring.GetFree()));
    // It has room for that many.
    static_cast<void>(m_Ring.Write(pBytes, static_cast<std::int32_t>(nTaken)));
    while (TakeFromRing()) {
    }
    return nTaken;
}

bool CReception::TakeFromRing() {
    std::uint8_t bytes[kRingBytes];
    if (m_ePhase == Phase::kFile) {
        const auto nHeld = static_cast<std::size_t>(m_Ring.Peek(bytes, kRingBytes));
        if (nHeld > 0) {
            m_Ring.Skip(static_cast<std::int32_t>(TakeFileBytes(bytes, nHeld)));
        }
        return nHeld > 0;
    }
    const std::int32_t nFrame = m_Ring.CheckF1Frame();
    if (nFrame < 0) {
        Refuse("what came is no message of a service");
    }
    if (nFrame == 0) {
        return false;
    }
    m_Ring.Skip(m_Ring.Peek(bytes, nFrame));
    Handle(OpenUploadFrame({bytes, bytes + nFrame}));
    return true;
}

const std::map<CReception::Phase, CReception::Handler>& CReception::Handlers() {
    static const std::map<Phase, Handler> handlers = {
        {Phase::kHello, {UM_HELLO, &CReception::OnHello}},
        {Phase::kInfo, {UM_INFO, &CReception::OnInfo}},
        {Phase::kAnswer, {UM_GET_HLOG_ACK, &CReception::OnFileAnswer}},
    };
    return handlers;
}

void CReception::Handle(const UploadMessage& message) {
    if (message.wCode == UM_RTLOG && HasBegun()) {
        OnRecord(DecodeRecord(message));
        return;
    }
    const auto handler = Handlers().find(m_ePhase);
    if (handler == Handlers().end() || handler->second.wCode != message.wCode) {
        Refuse(fmt::format("message {} came, which was not asked for", message.wCode));
    }
    (this->*handler->second.pfnHandle)(message);
}

// A service sends none before it is asked to, and no other ones.
void CReception::OnRecord(const LogRecord& record) {
    if (!m_Job.wanted || !IsSubscribed(*m_Job.wanted, record.nIndex, record.nType)) {
        if (!std::exchange(m_bUnwantedTold, true)) {
            m_Events.fnNote(m_strName, "sends live records that it was not asked for; dropped");
        }
        return;
    }
    ++m_Result.nRecords;
    if (m_Events.pSink != nullptr) {
        m_Events.pSink->OnRecord(m_strName, m_Result.nRecords, record);
    }
}

void CReception::OnHello(const UploadMessage& message) {
    const std::uint32_t dwVersion = DecodeHello(message);
    if (dwVersion != kProtocolVersion) {
        Send(MakeHelloAck(kHelloRefused));
        Refuse(fmt::format("protocol version {:#x}, not {:#x}", dwVersion, kProtocolVersion));
    }
    Send(MakeHelloAck());
    Enter(Phase::kInfo);
}

void CReception::OnInfo(const UploadMessage& message) {
    const UploadInfo info = DecodeInfo(message);
    m_strName = ApplianceName(m_strName, info);
    if (m_Job.bFolders) {
        m_strFolder = std::filesystem::path(m_Job.strInto) / m_strName;
    }
    m_Events.fnNote(m_strName, fmt::format("session with node {}, display language {}", info.byNode,
                                           info.byLanguage == 0 ? "chinese" : "english"));
    Send(MakeInfoAck());
    if (m_Job.optLanguage) {
        Send(MakeSetLanguage(*m_Job.optLanguage));
    }
    if (m_Job.wanted) {
        Send(MakeSubscribe(*m_Job.wanted));
    }
    for (const std::string& strName : DayNames(m_Job.nDays, std::time(nullptr))) {
        if (std::find(m_Job.files.begin(), m_Job.files.end(), strName) == m_Job.files.end()) {
            m_Wanted.push_back(strName);
        }
    }
    m_Wanted.insert(m_Wanted.end(), m_Job.files.begin(), m_Job.files.end());
    NextFile();
}

// Goes on with the next file that can be asked for; with the rest of the job when there is none.
void CReception::NextFile() {
    while (!m_Wanted.empty()) {
        const std::string strName = m_Wanted.front();
        m_Wanted.pop_front();
        if (Ask(strName)) {
            return;
        }
    }
    OnAllAsked();
}

bool CReception::Ask(const std::string& strName) {
    if (CDownload::IsHere(m_strFolder, strName)) {
        ++m_Result.nHere;
        m_Events.fnNote(m_strName, strName + ": is here already");
        return false;
    }
    try {
        m_pDownload = std::make_unique<CDownload>(m_strFolder, strName);
        if (m_pDownload->Start() > std::numeric_limits<std::uint32_t>::max()) {
            m_pDownload->Restart();
        }
    } catch (const std::runtime_error& error) {
        Fail(error.what());
        return false;
    }
    AskForFile();
    return true;
}

void CReception::AskForFile() {
    Send(MakeGetHlog(m_pDownload->Name(), static_cast<std::uint32_t>(m_pDownload->Start())));
    Enter(Phase::kAnswer);
}

void CReception::OnFileAnswer(const UploadMessage& message) {
    const UploadFileAnswer answer = DecodeFileAnswer(message);
    if (answer.byResult == kGetHlogFound) {
        BeginFile(answer.dwSize);
    } else if (answer.byResult == kGetHlogBeyondEnd && m_pDownload->Start() > 0) {
        m_pDownload->Restart();  // more is held than there is, or just as much
        AskForFile();
    } else {
        OnRefused(answer.byResult);
    }
}

void CReception::BeginFile(std::uint64_t nSize) {
    if (nSize > m_Job.nMostBytes) {
        Refuse(fmt::format("{} bytes are more than --max-size allows", nSize));
    }
    if (nSize <= m_pDownload->Start()) {
        Refuse(fmt::format("a size of {} bytes for what follows byte {}", nSize,
                           m_pDownload->Start()));
    }
    const std::string strWhyNot =
        m_Quota.WhyNot(m_strAddress, nSize - m_pDownload->Start(), m_strFolder);
    if (!strWhyNot.empty()) {
        RefuseByQuota(strWhyNot);
    }
    m_pDownload->Begin(nSize);
    Enter(Phase::kFile);
}

void CReception::RefuseByQuota(const std::string& strWhy) {
    m_bQuotaHit = true;
    Refuse(strWhy);
}

void CReception::CheckFolder() {
    std::error_code ignored;  // whoever makes it tells why it cannot be made
    if (!std::filesystem::exists(m_strFolder, ignored) && !m_Quota.TakeFolder(m_strAddress)) {
        RefuseByQuota("this address has had all folders that --max-folders-each allows");
    }
}

void CReception::OnRefused(std::uint8_t byResult) {
    const std::string strName = m_pDownload->Name();
    m_pDownload.reset();
    const bool bByName =
        std::find(m_Job.files.begin(), m_Job.files.end(), strName) != m_Job.files.end();
    if (byResult == kGetHlogNotFound && !bByName) {
        ++m_Result.nNotKept;
    } else if (byResult == kGetHlogNotFound) {
        Fail(strName + ": the service has no such file");
    } else {
        Fail(fmt::format("{}: the service cannot open it (result {})", strName, byResult));
    }
    NextFile();
}

void CReception::OnAllAsked() {
    if (m_Job.nDays > 0 && m_Result.nNotKept == static_cast<std::uint32_t>(m_Job.nDays)) {
        Fail(fmt::format("the service has no file of the last {} days", m_Job.nDays));
    }
    if (m_Job.bReboot) {
        Send(MakeUploadFrame(UM_REBOOT));
        Enter(Phase::kReboot);
    } else {
        Enter(m_Job.wanted ? Phase::kLive : Phase::kEnd);
    }
}

void CReception::OnClosed() const {
    if (!IsOver() && m_ePhase != Phase::kLive) {
        Refuse("closed by the service");
    }
}

void CReception::GiveUp(const std::string& strWhy) {
    std::string strLine = Where() + strWhy;
    if (!m_Wanted.empty()) {
        strLine += fmt::format("; not asked for any more: {}", fmt::join(m_Wanted, ", "));
    }
    Fail(strLine);
}

std::string CReception::Where() const {
    if (!m_pDownload) {
        return m_ePhase == Phase::kReboot ? "reboot: " : "";
    }
    if (m_pDownload->Size() == 0) {
        return m_pDownload->Name() + ": ";
    }
    return fmt::format("{}: {} of {} bytes: ", m_pDownload->Name(), m_pDownload->Done(),
                       m_pDownload->Size());
}

CReception::Limit CReception::TimeLimit() const {
    switch (m_ePhase) {
        case Phase::kLive:
            return Limit::kNone;
        case Phase::kFile:
            return Limit::kSinceByte;
        default:
            return Limit::kSinceStep;
    }
}

void CReception::Enter(Phase ePhase) {
    m_ePhase = ePhase;
    ++m_nStep;
}

void CReception::Send(const FrameBytes& frame) {
    m_Output.insert(m_Output.end(), frame.begin(), frame.end());
}
