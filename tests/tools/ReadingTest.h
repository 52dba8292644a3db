// What the tests of show and stats share: day's files in a private root, and the real program.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "logstore/LogRecord.h"
#include "peers/PrivateRoot.h"

inline std::string ReadWhole(const std::string& strPath) {
    std::ifstream file(strPath, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

inline std::vector<std::string> Lines(const std::string& strText) {
    std::vector<std::string> lines;
    std::istringstream stream(strText);
    for (std::string strLine; std::getline(stream, strLine);) {
        lines.push_back(strLine);
    }
    return lines;
}

// A record of 22 November 2026, 14:05 and nSecond.
inline LogRecord StampedRecord(std::int32_t nIndex, std::int32_t nType, int nSecond,
                               const std::string& strText) {
    LogRecord record{};
    record.dwMagic = LOG_RECORD_MAGIC;
    record.nIndex = nIndex;
    record.nType = nType;
    record.wYear = 2026;
    record.byMonth = 11;
    record.byDay = 22;
    record.byHour = 14;
    record.byMinute = 5;
    record.bySecond = static_cast<std::uint8_t>(nSecond);
    strText.copy(record.szText, kRecordTextBytes);
    return record;
}

// The bytes of a day's file that has not been round.
inline std::string DayBytes(const std::vector<LogRecord>& records) {
    LogFileHeader header{};
    header.dwMagic = LOG_RECORD_MAGIC;
    header.dwCount = static_cast<std::uint32_t>(records.size());
    std::string strBytes(reinterpret_cast<const char*>(&header), sizeof(header));
    for (const LogRecord& record : records) {
        strBytes.append(reinterpret_cast<const char*>(&record), sizeof(record));
    }
    return strBytes;
}

class ReadingTest : public PrivateRoot {
protected:
    struct Result {
        int nStatus;
        std::string strOutput;
        std::string strErrors;
    };

    void SetUp() override {
        PrivateRoot::SetUp();
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        setenv("LC_ALL", "C", 1);
        tzset();
        std::filesystem::create_directories(m_strRoot + "/etc/tarvik/log");
        Write("/etc/tarvik/log/log.conf",
              "[0]\nAPP = alpha\n[1]\nAPP = beta\n[2]\nAPP = my, app\n");
    }

    void Write(const std::string& strPath, const std::string& strContent) const {
        std::ofstream(m_strRoot + strPath, std::ios::binary) << strContent;
    }

    // Runs "tarvik-log" with arguments as a shell takes them, from within the root.
    Result Run(const std::string& strArguments) const {
        const std::string strCommand = "cd '" + m_strRoot + "' && { " + TARVIK_LOG + " " +
                                       strArguments + "; } >stdout 2>stderr </dev/null";
        const int nStatus = std::system(strCommand.c_str());
        return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, ReadWhole(m_strRoot + "/stdout"),
                ReadWhole(m_strRoot + "/stderr")};
    }
};
