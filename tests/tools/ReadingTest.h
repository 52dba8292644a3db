// What the tests of the tools share: day's files in a private root, and the real program.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "logstore/LogRecord.h"
#include "peers/PrivateRoot.h"
#include "peers/Service.h"

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
    const auto bySecond = static_cast<std::uint8_t>(nSecond);
    LogRecord record{LOG_RECORD_MAGIC, nIndex, nType, 2026, 11, 22, 14, 5, bySecond, 0, {}};
    strText.copy(record.szText, kRecordTextBytes);
    return record;
}

// The bytes of a day's file that has not been round.
inline std::string DayBytes(const std::vector<LogRecord>& records) {
    const LogFileHeader header{LOG_RECORD_MAGIC, static_cast<std::uint32_t>(records.size()), {}};
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

    void TearDown() override {
        for (const pid_t nPid : std::exchange(m_Started, {})) {
            kill(nPid, SIGKILL);
            waitpid(nPid, nullptr, 0);
        }
        PrivateRoot::TearDown();
    }

    // Runs "tarvik-log" with arguments as a shell takes them, from within the root.
    Result Run(const std::string& strArguments) const {
        const std::string strCommand = "cd '" + m_strRoot + "' && { '" + TARVIK_LOG + "' " +
                                       strArguments + "; } >stdout 2>stderr </dev/null";
        const int nStatus = std::system(strCommand.c_str());
        return {WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1, Read("/stdout"), Read("/stderr")};
    }

    // Starts it; its output goes to strFile and strFile.errors in the root. strMachine: the root in
    // which it finds configuration and day's files, unless it is this one. Killed with the test.
    pid_t Start(const std::string& strArguments, const std::string& strFile,
                const std::string& strMachine = "$TARVIK_ROOT") {
        const std::string strCommand = fmt::format(
            "cd '{0}' && TARVIK_ROOT=\"{1}\" exec '{2}' {3} >{4} 2>{4}.errors </dev/null",
            m_strRoot, strMachine, TARVIK_LOG, strArguments, strFile);
        const pid_t nPid = fork();
        if (nPid == 0) {
            execl("/bin/sh", "sh", "-c", strCommand.c_str(), nullptr);
            _exit(127);
        }
        m_Started.push_back(nPid);
        return nPid;
    }
    // Waits for the end of one that was started: the exit status, or 128 and the signal; -1 when it
    // does not come.
    int End(pid_t nPid, int nSignal = 0) {
        kill(nPid, nSignal);
        int nStatus = 0;
        if (!WaitUntil([&] { return waitpid(nPid, &nStatus, WNOHANG) == nPid; })) {
            return -1;
        }
        std::erase(m_Started, nPid);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : 128 + WTERMSIG(nStatus);
    }

private:
    std::vector<pid_t> m_Started;
};
