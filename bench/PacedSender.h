// Sends numbered records at an even pace: the load of every benchmark.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "logstore/LogRecord.h"
#include "peers/LogClient.h"

// Text of such a record, of a usual length; its last ten digits are the number.
constexpr char kSampleText[] = "interface eth0: link is up, 100 Mbit/s, #0000000000";

struct SendResult {
    std::int64_t nSent = 0;
    double dSeconds = 0;  // what it took

    double Rate() const { return dSeconds > 0 ? static_cast<double>(nSent) / dSeconds : 0; }
};

// Calls send() dRate times a second for dSeconds, evenly, on a processor of its own: between calls
// the clock is read, not slept. A call that comes late is not made up for by a burst, so the rate
// reached may be lower.
SendResult SendPaced(double dRate, double dSeconds, const std::function<void()>& send);

class CPacedSender {
public:
    // wPort: where the records go on 127.0.0.1. nType: type of all records. nClients: how many log
    // clients, indices from 0, send in turn.
    CPacedSender(std::uint16_t wPort, std::int32_t nType, int nClients = 1);

    // Sends the next record. Records are numbered from 1 over the life of the object.
    void SendOne();

    SendResult Send(double dRate, double dSeconds) {
        return SendPaced(dRate, dSeconds, [this] { SendOne(); });
    }

    std::int64_t Sent() const { return m_nSent; }
    std::string LastText() const;  // of the newest record

private:
    std::vector<CLogClient> m_Clients;
    std::size_t m_nNext = 0;  // of m_Clients
    LogRecord m_Record;
    std::int64_t m_nSent = 0;
};

// Sends the same texts as syslog messages, to who stores lines.
class CSyslogSender {
public:
    using Send = std::function<void(const void* pData, std::size_t nLen)>;

    // strHead: what stands in front of the text, priority and stamp first. send: hands a message
    // over.
    CSyslogSender(const std::string& strHead, Send send);

    void SendOne();
    std::string LastText() const;

private:
    std::string m_strMessage;
    Send m_Send;
    std::int64_t m_nSent = 0;
};

// The number in a text of such a record or of a line that shows it; -1: none.
std::int64_t NumberInText(std::string_view strText);
