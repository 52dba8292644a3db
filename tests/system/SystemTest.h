// What the tests of the real service share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "peers/Service.h"
#include "tools/DayFile.h"
#include "tools/LogClient.h"

// Path of the day's file of the given local date in the service's root.
inline std::string DayPath(const CService& service, const char* szDirectory, const std::tm& date) {
    char szName[32];
    std::strftime(szName, sizeof(szName), "%Y%m%d.log", &date);
    return service.Path(std::string(szDirectory) + szName);
}

inline std::string TodayPath(const CService& service) {
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    return DayPath(service, "/log/", tmNow);
}

// The write counter of a day's file; 0 when there is none yet.
inline std::uint32_t CountIn(const std::string& strPath) {
    LogFileHeader header{};
    std::ifstream(strPath, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return header.dwCount;
}

// Sends numbered records of client 0 in bursts that the socket's buffer holds, each after the one
// before was stored. Numbers run from nFirst; the day's file at strPath begins with nBase writes.
class CNumberedSender {
public:
    CNumberedSender(std::uint16_t wPort, std::string strPath)
        : m_Client(wPort), m_strPath(std::move(strPath)) {}

    static std::string Text(std::uint32_t nNumber) { return "record " + std::to_string(nNumber); }

    // False when the service does not keep up.
    bool Send(std::uint32_t nFirst, std::uint32_t nCount) {
        constexpr std::uint32_t kBurst = 100;
        std::uint32_t nStored = CountIn(m_strPath);
        for (std::uint32_t i = 0; i < nCount; ++i) {
            m_Client.Send(MakeRecord(0, 0, Text(nFirst + i)));
            if ((i + 1) % kBurst == 0 || i + 1 == nCount) {
                nStored += (i % kBurst) + 1;
                // the counter passes over multiples of the file's units
                if (!WaitUntil([&] { return CountIn(m_strPath) >= nStored; })) {
                    return false;
                }
            }
        }
        return true;
    }

private:
    CLogClient m_Client;
    std::string m_strPath;
};

// A POSIX time zone in which it is nSeconds before midnight now.
inline std::string ZoneBeforeMidnight(int nSeconds) {
    constexpr int kDay = 24 * 60 * 60;
    const auto nNow = static_cast<int>(std::time(nullptr) % kDay);
    const int nWest = ((nNow + nSeconds) % kDay + kDay) % kDay;  // local time is UTC minus this
    char szZone[32];
    std::snprintf(szZone, sizeof(szZone), "DAY+%02d:%02d:%02d", nWest / 3600, nWest / 60 % 60,
                  nWest % 60);
    return szZone;
}

// Gives this process, and the services it starts, the time zone.
inline void UseZone(const std::string& strZone) {
    setenv("TZ", strZone.c_str(), 1);
    tzset();
}
