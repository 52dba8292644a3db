// A stand-in for the service: its port, and what it says to a client. Waits are limited.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <tarvik_log.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "console/LogcCtrlFrame.h"
#include "logstore/LogRecord.h"
#include "peers/Service.h"

// A C program's part, in FromC.c: logs one record of each type, real-time records as wanted. How
// often the arguments of real-time calls were evaluated.
extern "C" int LogFromC(tarvik_log* log);

constexpr int kLimitMs = 10000;

// A socket on a port of 127.0.0.1.
class CPort {
public:
    explicit CPort(std::uint16_t wPort = 0) : m_nSocket(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address = Address(wPort);
        socklen_t nLen = sizeof(address);
        EXPECT_EQ(bind(m_nSocket, reinterpret_cast<sockaddr*>(&address), nLen), 0);
        getsockname(m_nSocket, reinterpret_cast<sockaddr*>(&address), &nLen);
        m_wPort = ntohs(address.sin_port);
    }
    ~CPort() { close(m_nSocket); }
    CPort(const CPort&) = delete;
    CPort& operator=(const CPort&) = delete;

    std::uint16_t Number() const { return m_wPort; }

    void Send(std::uint16_t wPort, const std::string& strBytes) const {
        const sockaddr_in address = Address(wPort);
        EXPECT_EQ(sendto(m_nSocket, strBytes.data(), strBytes.size(), 0,
                         reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
                  static_cast<ssize_t>(strBytes.size()));
    }

    // The next datagram as a record; nothing when none comes within nTimeoutMs.
    std::optional<LogRecord> Receive(int nTimeoutMs = kLimitMs) const {
        pollfd waiting{m_nSocket, POLLIN, 0};
        LogRecord record{};
        if (poll(&waiting, 1, nTimeoutMs) < 1 ||
            recv(m_nSocket, &record, sizeof(record), MSG_TRUNC) != sizeof(record)) {
            return std::nullopt;
        }
        return record;
    }

    // The texts of nCount records, and of any that is there besides, each with all that stands in
    // its field but zeros at the end.
    std::vector<std::string> Texts(std::size_t nCount) const {
        std::vector<std::string> listTexts;
        while (const auto record = Receive(listTexts.size() < nCount ? kLimitMs : 0)) {
            std::string strText(record->szText, kRecordTextBytes);
            strText.resize(strText.find_last_not_of('\0') + 1);
            EXPECT_EQ(record->szText[kRecordTextBytes - 1], '\0');
            listTexts.push_back(std::move(strText));
        }
        return listTexts;
    }

private:
    static sockaddr_in Address(std::uint16_t wPort) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(wPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    int m_nSocket;
    std::uint16_t m_wPort = 0;
};

using Log = std::unique_ptr<tarvik_log, decltype(&tarvik_log_close)>;

inline Log OpenLog(int nIndex, std::uint16_t wService, std::uint16_t wControl = 0) {
    tarvik_log* pLog = nullptr;
    EXPECT_EQ(tarvik_log_open(&pLog, nIndex, wService, wControl), 0);
    return {pLog, tarvik_log_close};
}

inline std::string Bytes(const LogcCtrlFrame& frame, std::size_t nLen) {
    return {reinterpret_cast<const char*>(&frame), nLen};
}

inline std::string RealTimeBytes(int nIndex, std::uint32_t dwValue) {
    return Bytes(MakeRealTimeFrame(nIndex, dwValue), kRealTimeFrameBytes);
}

struct Counts {
    std::uint64_t nSent = 0;
    std::uint64_t nLost = 0;
    bool operator==(const Counts&) const = default;
};

inline Counts CountsOf(const Log& log) {
    Counts counts;
    EXPECT_EQ(tarvik_log_stats(log.get(), &counts.nSent, &counts.nLost), 0);
    return counts;
}
