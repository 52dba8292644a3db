// One session of a service as a receiver goes through it: takes what comes, tells what to send,
// fetches files and hands on live records. No socket and no clock: its owner has both.
//
// Threads: an object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/Buff.h"
#include "logstore/LogRecord.h"
#include "transfer/Download.h"
#include "transfer/ReceiveLimits.h"
#include "transfer/RecordSink.h"
#include "transfer/UploadMessage.h"

// What is asked of every session, in this order: the language, the subscription, the files, the
// reboot.
struct ReceiveJob {
    std::string strInto = ".";
    bool bFolders = true;            // a folder per appliance in strInto; false: strInto itself
    int nDays = 0;                   // the files of the last days, as far as they are kept
    std::vector<std::string> files;  // and these, plain file names
    std::uint64_t nMostBytes = UINT32_MAX;    // longest file that is taken
    std::optional<SubscriptionTable> wanted;  // live records, for as long as the session lasts
    std::optional<std::uint8_t> optLanguage;  // to be set
    bool bReboot = false;                     // when all files are there
};

struct ReceptionResult {
    std::uint64_t nBytes = 0;           // of files, as they came
    std::uint32_t nFiles = 0;           // that arrived whole
    std::uint32_t nHere = 0;            // that were here already
    std::uint32_t nNotKept = 0;         // days that the service has no file of
    std::uint64_t nRecords = 0;         // live
    std::vector<std::string> failures;  // what was asked for and did not come, a line for each
};

class CReception {
public:
    // Who is told what; the first argument is Name(). All are called from Take only.
    struct Events {
        CRecordSink* pSink = nullptr;  // null: nobody wants records and files
        std::function<void(const std::string&, const std::string&)> fnNote;  // a line for people
    };

    // job, events and quota live as long as this. strAddress: the peer's, "10.0.0.1".
    CReception(const ReceiveJob& job, const Events& events, CQuota& quota,
               const std::string& strAddress);

    // Takes the next bytes of the stream. Throws std::runtime_error when the session cannot go on.
    void Take(const std::uint8_t* pBytes, std::size_t nLen);

    // What is to be sent to the service next; empty: nothing.
    FrameBytes TakeOutput() { return std::exchange(m_Output, {}); }

    // The peer has closed. Throws std::runtime_error when something was still to come.
    void OnClosed() const;

    // The session is over although not all came: what is missing, and why, goes into the result.
    void GiveUp(const std::string& strWhy);

    // How long the peer may take from now on, or from its next byte; nullopt: for ever.
    enum class Limit : std::uint8_t { kNone, kSinceStep, kSinceByte };
    Limit TimeLimit() const;
    std::uint32_t Step() const { return m_nStep; }  // counts up when the service has done one

    bool HasBegun() const { return m_ePhase > Phase::kInfo; }  // the handshake is done
    bool IsOver() const { return m_ePhase >= Phase::kEnd; }    // nothing is asked for any more
    bool IsRebooting() const { return m_ePhase == Phase::kReboot; }

    // The appliance: the peer's address; once the handshake is done, as ApplianceName says.
    const std::string& Name() const { return m_strName; }
    const CDownload* Download() const { return m_pDownload.get(); }  // the one that is under way
    const ReceptionResult& Result() const { return m_Result; }
    bool HasHitQuota() const { return m_bQuotaHit; }  // which ended it

private:
    enum class Phase : std::uint8_t {
        kHello,   // UM_HELLO is awaited
        kInfo,    // UM_INFO
        kAnswer,  // UM_GET_HLOG_ACK
        kFile,    // the file's bytes
        kLive,    // live records, until the connection ends
        kEnd,     // nothing: the connection may be closed
        kReboot,  // the end of the connection, by the service
    };
    struct Handler {
        std::uint16_t wCode;
        void (CReception::*pfnHandle)(const UploadMessage&);
    };
    static const std::map<Phase, Handler>& Handlers();

    std::size_t TakeFileBytes(const std::uint8_t* pBytes, std::size_t nLen);
    std::size_t TakeIntoRing(const std::uint8_t* pBytes, std::size_t nLen);
    bool TakeFromRing();  // false: it holds nothing that is complete
    void Handle(const UploadMessage& message);
    void OnRecord(const LogRecord& record);
    void OnHello(const UploadMessage& message);
    void OnInfo(const UploadMessage& message);
    void OnFileAnswer(const UploadMessage& message);

    void NextFile();
    bool Ask(const std::string& strName);  // false: not needed or not possible
    void AskForFile();
    void BeginFile(std::uint64_t nSize);
    void RefuseByQuota(const std::string& strWhy);
    void CheckFolder();
    void OnRefused(std::uint8_t byResult);
    void OnAllAsked();
    void Enter(Phase ePhase);
    void Send(const FrameBytes& frame);
    void Fail(const std::string& strWhat) { m_Result.failures.push_back(strWhat); }
    std::string Where() const;

    const ReceiveJob& m_Job;
    const Events& m_Events;
    CQuota& m_Quota;
    const std::string m_strAddress;
    std::string m_strName;
    std::string m_strFolder;
    Phase m_ePhase = Phase::kHello;
    std::uint32_t m_nStep = 0;
    CBuff m_Ring;                      // what is no file's byte and not understood yet
    FrameBytes m_Output;               // not yet taken by the owner
    std::deque<std::string> m_Wanted;  // files that were not asked for yet
    std::unique_ptr<CDownload> m_pDownload;
    ReceptionResult m_Result;
    bool m_bQuotaHit = false;
    bool m_bUnwantedTold = false;  // live records that nobody subscribed to
};

// The name of an appliance, and of its folder: the address of its session, "-node05" when its node
// code is not 0 (here 5), and "-" with the 16 bytes of the agent's request in hexadecimal digits
// when they are not all 0. So several appliances behind one address stay apart if their agents tell
// them apart, and one that comes again finds its folder.
std::string ApplianceName(const std::string& strAddress, const UploadInfo& info);
