// Hostile peers of one program: what they send is made up at random, in the same mix every time,
// and what the program must still do and cost is looked at afterwards.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "peers/PeerSocket.h"

// How much is done; each number is that of a whole run with --long.
struct AbuseScale {
    std::uint64_t nInputs = 1'000'000;     // per port of the service
    std::uint64_t nSessions = 200'000;     // at receive, and at agent
    std::uint64_t nExchanges = 1'400'000;  // of file and link, half of each
    std::uint64_t nDivisor = 20;           // of all of them

    std::uint64_t Inputs() const { return nInputs / nDivisor; }
    std::uint64_t Sessions() const { return nSessions / nDivisor; }
    std::uint64_t Exchanges() const { return nExchanges / nDivisor; }
};

// Numbers and bytes at random; the same ones for the same seed.
class CDice {
public:
    explicit CDice(std::uint64_t nSeed) : m_Engine(nSeed) {}

    std::uint32_t Below(std::uint32_t nEnd) {  // 0 to nEnd - 1
        return static_cast<std::uint32_t>(m_Engine() % nEnd);
    }
    std::uint32_t Number() { return static_cast<std::uint32_t>(m_Engine()); }
    PeerBytes Bytes(std::size_t nBytes);

private:
    std::mt19937_64 m_Engine;
};

// Watches what a program costs while it is abused. Throws std::runtime_error when it has ended.
class CWatch {
public:
    // nMostKb: how much its memory may grow from the first quarter of a phase to its end.
    CWatch(std::string strWhat, pid_t nPid, std::uint64_t nMostKb);

    // To be called as the phase goes on: nDone of nAll.
    void Step(std::uint64_t nDone, std::uint64_t nAll);

    // Prints the line of the phase. False: memory or descriptors have grown.
    [[nodiscard]] bool Report(const std::string& strDone);

private:
    std::uint64_t MemoryKb() const;
    std::size_t Descriptors() const;

    std::string m_strWhat;
    pid_t m_nPid;
    std::uint64_t m_nMostKb;
    std::uint64_t m_nQuarterKb = 0;  // 0: not there yet
    std::size_t m_nDescriptors;
    std::int64_t m_nSinceMs;
};

// The phases. Each returns false, or throws, when something did not hold, and says what.
bool AbuseService(const AbuseScale& scale, std::uint64_t nSeed);
bool AbuseReceive(const AbuseScale& scale, std::uint64_t nSeed);
bool AbuseAgent(const AbuseScale& scale, std::uint64_t nSeed);
