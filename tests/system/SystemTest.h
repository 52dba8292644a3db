// What the tests of the real service share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "peers/Agent.h"
#include "peers/DayFile.h"
#include "peers/LogClient.h"
#include "peers/Receiver.h"
#include "peers/Service.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // slower, and no other library can be put in front
#else
constexpr bool kSanitized = false;
#endif

inline std::string TodayPath(const CService& service) {
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    char szName[32];
    std::strftime(szName, sizeof(szName), "/log/%Y%m%d.log", &tmNow);
    return service.Path(szName);
}

// The write counter of a day's file; 0 when there is none yet.
inline std::uint32_t CountIn(const std::string& strPath) {
    LogFileHeader header{};
    std::ifstream(strPath, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return header.dwCount;
}

// Sends numbered records of client 0 in bursts that the socket's buffer holds, each after the one
// before was stored in the day's file at strPath.
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

// Gives this process, and the services that it starts, a time zone in which it is noon now: no
// other day begins. How far that is ahead of UTC, in seconds.
inline std::int64_t UseZoneOfNoon() {
    constexpr int kDay = 24 * 60 * 60;
    const auto nWest = static_cast<int>((std::time(nullptr) + kDay / 2) % kDay);
    char szZone[32];
    std::snprintf(szZone, sizeof(szZone), "DAY+%02d:%02d:%02d", nWest / 3600, nWest / 60 % 60,
                  nWest % 60);
    setenv("TZ", szZone, 1);
    tzset();
    return -nWest;
}

// Entries of a directory of the running service's in /proc: "task" or "fd".
inline std::ptrdiff_t CountOf(const CService& service, const std::string& strDirectory) {
    std::error_code gone;  // an entry may go meanwhile
    return std::distance(std::filesystem::directory_iterator(
                             "/proc/" + std::to_string(service.Pid()) + "/" + strDirectory, gone),
                         {});
}

// The service's open descriptors, once none comes or goes any more: a trace, or the file of a
// replaced clock, is open for a moment.
inline std::ptrdiff_t SteadyDescriptors(const CService& service) {
    std::ptrdiff_t nSteady = 0;
    int nTimes = 0;
    WaitUntil([&] {
        const std::ptrdiff_t nNow = CountOf(service, "fd");
        nTimes = nNow == nSteady ? nTimes + 1 : 0;
        nSteady = nNow;
        return nTimes == 20;
    });
    return nSteady;
}

// What the service has of the machine's memory.
inline std::int64_t MemoryKib(const CService& service) {
    std::int64_t nPages = 0;
    std::ifstream("/proc/" + std::to_string(service.Pid()) + "/statm") >> nPages >> nPages;
    return nPages * sysconf(_SC_PAGESIZE) / 1024;
}

// The bytes that pairs of hexadecimal digits stand for; blanks do not count.
inline std::string Hex(std::string strHex) {
    std::erase(strHex, ' ');
    std::string strBytes;
    for (std::size_t i = 0; i < strHex.size(); i += 2) {
        strBytes += static_cast<char>(std::stoi(strHex.substr(i, 2), nullptr, 16));
    }
    return strBytes;
}

// Bytes among which no two places look alike.
inline std::string Pattern(std::size_t nBytes) {
    std::string strBytes(nBytes, '\0');
    for (std::size_t i = 0; i < nBytes; ++i) {
        strBytes[i] = static_cast<char>((static_cast<std::uint32_t>(i) * 2654435761U) >> 24U);
    }
    return strBytes;
}

inline void SendBytes(CPeerSocket& connection, const std::string& strBytes) {
    connection.Send({strBytes.begin(), strBytes.end()});
}

// What the agent is told of a session that did not come about.
enum Result : std::uint32_t { kNotStarted = 0, kNoConnect = 2, kRefused = 3, kNoHandshake = 5 };

// A port that this process holds, so that nobody listens there.
inline const std::uint16_t kNobody = [] {
    static const CUniqueFd held(MakeSocket(SOCK_STREAM));
    sockaddr_in address{};
    socklen_t nLen = sizeof(address);
    static_cast<void>(BindToPort(held.Get(), 0));
    getsockname(held.Get(), reinterpret_cast<sockaddr*>(&address), &nLen);
    return ntohs(address.sin_port);
}();

inline void RequestSession(CAgent& agent, std::uint32_t dwId, std::uint16_t wPort) {
    agent.Send(MakeHlogRequest(dwId, AgentRequest{.wPort = wPort}));
}

// The session that such a request starts.
inline CReceiverSession OpenSession(CAgent& agent, CReceiver& receiver, std::uint32_t dwId = 1) {
    RequestSession(agent, dwId, receiver.Port());
    auto session = receiver.Accept();
    if (!session) {
        throw std::runtime_error("no session comes");
    }
    return std::move(*session);
}

// Waits for a slot to be taken by the thread of a session, or to be free again.
inline bool AwaitSlot(const CService& service, int nSlot, bool bTaken) {
    const std::string strThread = "logd.upload" + std::to_string(nSlot);
    return WaitUntil([&] { return (service.Thread(strThread) != 0) == bTaken; });
}

constexpr std::uint32_t kCancelValue = 0x12345678;

// The session has handled what it was sent, is ready, and has nothing else to say than live
// records.
inline void ExpectReady(CReceiverSession& session) {
    session.Cancel(kCancelValue);
    const UploadMessage ack = session.Await(UM_CANCEL_ACK);
    EXPECT_EQ(LoadLe32(&ack.payload.at(kCancelValueOffset)), kCancelValue);
}

inline void SubscribeToAll(CReceiverSession& session) {
    SubscriptionTable table;
    table.fill(1);
    session.Subscribe(table);
    ExpectReady(session);
}

// Fills the queue of a listener that accepts nobody, so that whoever connects next hangs.
inline std::vector<CPeerSocket> FillQueue(std::uint16_t wPort) {
    std::vector<CPeerSocket> fillers;
    for (int i = 0; i < 17; ++i) {  // one more than the queue is long
        CUniqueFd filler(MakeSocket(SOCK_STREAM));
        EXPECT_TRUE(ConnectSocket(filler.Get(), kLoopback, wPort));
        fillers.emplace_back(std::move(filler));
    }
    return fillers;
}
