// Those who take records and store them, each with the sender of its load: the service, the bare
// loop, and the log daemons that people would use instead.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "bench/Intakes.h"
#include "bench/LogDaemon.h"
#include "bench/PacedSender.h"
#include "bench/RateSearch.h"

struct Load {
    double dRate = 0;  // reached by the sender, records per second
    std::int64_t nSent = 0;
    std::int64_t nStored = 0;
    double dCpuUs = 0;     // of the whole process, for each stored record
    double dIntakeUs = 0;  // of the thread that stores, for each stored record

    double dLostPercent = 0;

    bool KeptAll() const { return nStored == nSent; }
};

// One of the values of all loads.
template <class TValue>
std::vector<TValue> Values(const std::vector<Load>& loads, TValue Load::*pValue) {
    std::vector<TValue> values;
    std::transform(loads.begin(), loads.end(), std::back_inserter(values),
                   [pValue](const Load& load) { return load.*pValue; });
    return values;
}

std::int64_t Total(const std::vector<std::int64_t>& counts);

class CContender {
public:
    virtual ~CContender() = default;
    CContender(const CContender&) = delete;
    CContender& operator=(const CContender&) = delete;

    // Sends at dRate records per second for dSeconds, from each of one or two senders at once, and
    // waits until what arrived is stored. A second sender is where the kernel puts it.
    Load Run(double dRate, double dSeconds, int nSenders = 1);

    // The same with tries of dSeconds each. Throws CNoRate.
    HighestRate SearchHighestRate(double dSeconds);

    // Whether the newest record in the file is the one that the first sender sent last.
    virtual bool HasNewestRecord() = 0;

protected:
    // nTid: the thread that stores; the first one of the process when it is none in particular.
    CContender(pid_t nPid, pid_t nTid) : m_nPid(nPid), m_nTid(nTid) {}

private:
    SendResult SendAll(double dRate, double dSeconds, int nSenders);

    virtual void BeginLoad() {}
    virtual void SendOne(std::size_t nSender) = 0;  // 0 or 1, each from a thread of its own
    virtual std::int64_t Stored() = 0;              // records so far, of all loads together

    pid_t m_nPid;
    pid_t m_nTid;
};

// The service or the bare loop. nClients: how many log clients send in turn.
class CRecordContender : public CContender {
public:
    explicit CRecordContender(const Intake& intake, int nClients = 1);

    bool HasNewestRecord() override;

private:
    void SendOne(std::size_t nSender) override { m_Senders[nSender].SendOne(); }
    std::int64_t Stored() override { return m_Intake.Stored(); }

    Intake m_Intake;
    std::array<CPacedSender, 2> m_Senders;
};

// A daemon that runs, as long as the object lives. Its file is emptied before each load: it would
// only grow.
class CDaemonContender : public CContender {
public:
    bool HasNewestRecord() override;

protected:
    explicit CDaemonContender(const CLogDaemon& daemon);

    const std::string m_strOutput;  // file or directory

private:
    void SendOne(std::size_t nSender) override { m_Senders[nSender].SendOne(); }
    virtual std::string NewestFile() const { return m_strOutput; }
    virtual std::string MessageEnd() const { return "\n"; }

    std::array<CSyslogSender, 2> m_Senders;
};

class CLineContender : public CDaemonContender {
public:
    explicit CLineContender(const CLogDaemon& daemon) : CDaemonContender(daemon) {}

private:
    void BeginLoad() override;
    std::int64_t Stored() override;

    std::int64_t m_nLines = 0;
    std::int64_t m_nCounted = 0;  // bytes of the file whose lines are in m_nLines
};

// One that writes messages of one size to one file after the other: all but the newest go.
class CFrameContender : public CDaemonContender {
public:
    explicit CFrameContender(const CLogDaemon& daemon)
        : CDaemonContender(daemon), m_nStoredBytes(daemon.StoredBytes()) {}

private:
    void BeginLoad() override;
    std::int64_t Stored() override;
    std::string NewestFile() const override { return Files().back(); }
    std::string MessageEnd() const override { return ""; }
    std::vector<std::string> Files() const;  // oldest first

    std::size_t m_nStoredBytes;
    std::uintmax_t m_nGone = 0;  // bytes of the files that went
};

// The contender that fits what the daemon stores.
std::unique_ptr<CContender> MakeContender(const CLogDaemon& daemon);
