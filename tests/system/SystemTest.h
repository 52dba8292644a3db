// What the tests of the real service share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "peers/Service.h"
#include "tools/DayFile.h"
#include "tools/LogClient.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // slower, and no other library can be put in front
#else
constexpr bool kSanitized = false;
#endif

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

// The number that stands nWords words behind the last strKey in a file of the kernel.
inline std::int64_t KernelNumber(const std::string& strPath, const std::string& strKey,
                                 int nWords) {
    std::ifstream file(strPath);
    std::int64_t nNumber = -1;
    for (std::string strWord; file >> strWord;) {
        if (strWord == strKey) {
            for (int i = 0; i < nWords; ++i) {
                file >> strWord;
            }
            nNumber = std::strtoll(strWord.c_str(), nullptr, 10);
        }
    }
    return nNumber;
}

// Entries of a directory of the running service's in /proc: "task" or "fd".
inline std::ptrdiff_t CountOf(const CService& service, const std::string& strDirectory) {
    std::error_code gone;  // an entry may go meanwhile
    return std::distance(std::filesystem::directory_iterator(
                             "/proc/" + std::to_string(service.Pid()) + "/" + strDirectory, gone),
                         {});
}

// File systems that this process and its children see until the object goes.
class CMounts {
public:
    CMounts()
        : m_bAllowed(unshare(CLONE_NEWNS) == 0 &&
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {}
    ~CMounts() {
        for (const std::string& strPath : m_Paths) {
            umount2(strPath.c_str(), MNT_DETACH);
        }
    }
    CMounts(const CMounts&) = delete;
    CMounts& operator=(const CMounts&) = delete;

    // Put an empty disk of nBytes over a directory, and one file over another. False, with errno,
    // when that is not allowed here.
    bool SmallDisk(const std::string& strOver, std::size_t nBytes) {
        const std::string strOptions = "size=" + std::to_string(nBytes);
        return Mount("small", strOver, "tmpfs", 0, strOptions.c_str());
    }
    bool File(const std::string& strFile, const std::string& strOver) {
        return Mount(strFile.c_str(), strOver, nullptr, MS_BIND, nullptr);
    }

private:
    bool Mount(const char* szSource, const std::string& strOver, const char* szType,
               unsigned long nFlags, const char* szOptions) {
        if (!m_bAllowed || mount(szSource, strOver.c_str(), szType, nFlags, szOptions) != 0) {
            return false;
        }
        m_Paths.push_back(strOver);
        return true;
    }

    bool m_bAllowed;
    std::vector<std::string> m_Paths;
};
