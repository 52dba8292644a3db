// Sends numbered records at an even pace: the load of every benchmark.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "logstore/LogRecord.h"
#include "tools/LogClient.h"

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
    // wPort: where the records go on 127.0.0.1. nType: type of all records.
    CPacedSender(std::uint16_t wPort, std::int32_t nType);

    // Sends the next record. Records are numbered from 1 over the life of the object.
    void SendOne();

    SendResult Send(double dRate, double dSeconds) {
        return SendPaced(dRate, dSeconds, [this] { SendOne(); });
    }

    std::int64_t Sent() const { return m_nSent; }
    std::string LastText() const;  // of the newest record

private:
    CLogClient m_Client;
    LogRecord m_Record;
    std::int64_t m_nSent = 0;
};

// The number in a text of such a record or of a line that shows it; -1: none.
std::int64_t NumberInText(const std::string& strText);
