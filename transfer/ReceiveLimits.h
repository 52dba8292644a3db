// Who may open sessions at a receiver, how many, and how much they may bring: by address and in
// total, so that one peer cannot take the place, the disk or the memory of all others.
//
// No socket, no clock, no lock inside: the owner tells what passes and when a day is over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The IPv4 addresses with the same first bits.
struct AddressNet {
    std::uint32_t dwAddress = 0;  // host byte order; no bit outside dwMask
    std::uint32_t dwMask = 0;

    bool Holds(std::uint32_t dwOther) const { return (dwOther & dwMask) == dwAddress; }
    bool operator==(const AddressNet&) const = default;
};

// "192.0.2.0/24", "192.0.2.7". nullopt: anything else, bits behind the net's included.
std::optional<AddressNet> ParseAddressNet(const std::string& strText);

// "Each" is one address, which may be a thousand appliances behind one router: no limit keeps those
// out. Bytes and folders count for a day.
struct ReceiveLimits {
    std::vector<AddressNet> allowed;  // empty: every address
    std::size_t nSessions = 10'000;   // open at a time
    std::size_t nSessionsEach = 5'000;
    std::size_t nPending = 4'000;  // of those, in their handshake
    std::size_t nPendingEach = 2'000;
    std::uint64_t nBytes = 1'000'000'000'000;  // of files
    std::uint64_t nBytesEach = 100'000'000'000;
    std::size_t nFoldersEach = 2'000;         // that are made anew
    std::uint64_t nKeepFree = 100'000'000;    // bytes that stay free on the disk
    std::uint64_t nLeastBytesPerSecond = 50;  // of a file that is under way
};

// The places for sessions.
class CPlaces {
public:
    explicit CPlaces(const ReceiveLimits& limits) : m_Limits(limits) {}  // limits outlive this

    enum class Answer : std::uint8_t {
        kCome,
        kDisplace,  // come when a session of dwVictim has gone
        kNotAllowed,
        kTooManyOfAddress,
        kTooManyPendingOfAddress,
        kFull,
    };
    struct Verdict {
        Answer eAnswer;
        std::uint32_t dwVictim = 0;
        bool bPendingOnly = false;  // the one that goes must be in its handshake
    };
    // On a newcomer. What is full gives it the place of an address that has two more than its own.
    Verdict Judge(std::uint32_t dwAddress) const;

    void Enter(std::uint32_t dwAddress);            // with its handshake still to come
    void FinishHandshake(std::uint32_t dwAddress);  // of one that entered
    void Leave(std::uint32_t dwAddress, bool bPending);

private:
    struct Count {
        std::size_t nSessions = 0;
        std::size_t nPending = 0;
    };
    bool IsAllowed(std::uint32_t dwAddress) const;
    Verdict Displace(std::uint32_t dwAddress, std::size_t Count::*pCount) const;

    const ReceiveLimits& m_Limits;
    std::map<std::uint32_t, Count> m_Counts;  // of addresses that have sessions
    Count m_Total;
};

// What the sessions of a day have brought.
class CQuota {
public:
    explicit CQuota(const ReceiveLimits& limits) : m_Limits(limits) {}  // limits outlive this

    // Why a file of which nBytes are still to come cannot be taken into strInto; empty: it can.
    std::string WhyNot(const std::string& strAddress, std::uint64_t nBytes,
                       const std::string& strInto) const;
    // Counts bytes that came. False: they are more than the day's.
    [[nodiscard]] bool AddBytes(const std::string& strAddress, std::uint64_t nBytes);

    // False: the address has had all its folders.
    [[nodiscard]] bool TakeFolder(const std::string& strAddress);

    void BeginDay();

private:
    struct Use {
        std::uint64_t nBytes = 0;
        std::size_t nFolders = 0;
    };
    const ReceiveLimits& m_Limits;
    std::map<std::string, Use> m_Used;  // by address
    std::uint64_t m_nBytes = 0;         // of all
};

// Keeps what repeats itself from being told without end.
class CToldOnce {
public:
    // Whether the line may be told that is the nMost-th of its kind or an earlier one. Of kinds
    // that are too many to be remembered none is told.
    [[nodiscard]] bool May(const std::string& strKind, std::size_t nMost = 1);
    void Forget() { m_Told.clear(); }

private:
    static constexpr std::size_t kMostKinds = 10'000;

    std::map<std::string, std::size_t> m_Told;
};
