// The ports that a log.conf names, for programs that take them from there unless they are told.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <string>

#include "support/IniFile.h"

// The path of this machine's log.conf.
std::string MachineConfig();

class CServiceConfig {
public:
    // Nothing is read before a port is wanted.
    explicit CServiceConfig(std::string strPath) : m_strPath(std::move(strPath)) {}

    // The port that a key names. szOption: what a person can give instead. Throws
    // std::runtime_error, naming the file and that option, when the file names none.
    std::uint16_t Port(const std::string& strSection, const char* szKey, const char* szOption);

private:
    std::string m_strPath;
    CIniFile m_Config;
    bool m_bLoaded = false;
};
