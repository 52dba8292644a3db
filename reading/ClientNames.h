// The names that log.conf gives to the clients.
//
// Threads: no lock inside; built once, then only read.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "logstore/LogRecord.h"

class CIniFile;

// Loads a log.conf. False when it cannot be read; so cannot what is no file: a pipe that nobody
// writes to would hold the program for ever.
[[nodiscard]] bool LoadConfig(CIniFile& config, const std::string& strPath);

class CClientNames {
public:
    // Reads the names from a log.conf. False when it cannot be read: every client is then known by
    // its number only.
    [[nodiscard]] bool Load(const std::string& strConfig);

    // The client's name, or "client N".
    std::string Name(std::int32_t nIndex) const;

    // Indexes of the clients of that name; none when there is no such client.
    std::vector<std::int32_t> IndexesOf(const std::string& strName) const;

    // Bytes of the longest name.
    std::size_t LongestName() const;

private:
    std::array<std::string, kClientCount> m_Names;  // by index; empty: not configured
};
