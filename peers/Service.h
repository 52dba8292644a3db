// The real service in a private root of its own: directories, configuration, start, stop and what
// can be seen of it from outside. Its owner runs as one process per service at a time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "peers/TempDir.h"

// True as soon as condition() is, asked every few milliseconds; false when it is not within
// nLimitMs.
bool WaitUntil(const std::function<bool()>& condition, int nLimitMs = 10000);

// A port that nobody uses at this moment, and that no other test gets while this process lives.
// nType: SOCK_STREAM or SOCK_DGRAM.
std::uint16_t FreePort(int nType);

class CService {
public:
    // strProgram: path of tarvik-logd, unless the environment variable TARVIK_TEST_SERVICE names
    // another program, such as a script that has the service emulated. wAgentPort: where the
    // management agent listens; 0: a free port, so that nobody does. Makes the root with all
    // directories, and a configuration with free ports and the clients alpha (index 0), beta (1)
    // and gamma (2).
    explicit CService(std::string strProgram, std::uint16_t wAgentPort = 0);
    ~CService();  // kills what still runs and removes the root
    CService(const CService&) = delete;
    CService& operator=(const CService&) = delete;

    // Before Start. An environment variable of the service, as in "TZ", "UTC"; an empty value:
    // none.
    void SetEnvironment(const std::string& strName, const std::string& strValue);

    // Before Start. Lets the service's wall clock stand where SetClock puts it; monotonic time goes
    // on. False: a sanitizer stands in the way, or the program takes no libraries. Throws
    // std::runtime_error without libfaketime.
    [[nodiscard]] bool FakeClock();
    // Sets that clock, before Start or while the service runs: "2026-02-27 23:59:59", UTC, where it
    // stands; or "-86400.5", seconds to the real clock, where it goes on.
    void SetClock(const std::string& strTime) const;

    // The service runs in the emulator whose name is in TARVIK_TEST_EMULATOR.
    static bool IsEmulated();

    // Before Start. Another program in place of the one given at first, such as a wrapper around
    // it.
    void SetProgram(const std::string& strProgram) { m_strProgram = strProgram; }

    // Starts the service and waits until all of it runs. Foreground: standard output goes to
    // the file Output() reads. False when it ended or does not get ready.
    bool Start(bool bDetached = false);

    // Starts the service in the foreground without waiting.
    void Launch(bool bDetached = false);

    // Sends a signal; SIGTERM by default.
    void Signal(int nSignal);

    // Waits for the end: the exit status, 128 + signal number, or nothing within nLimitMs.
    std::optional<int> Wait(int nLimitMs = 10000);

    // Waits for the end of another child of this process.
    static void WaitFor(pid_t nChild);

    // SIGTERM and Wait.
    std::optional<int> Stop();

    pid_t Pid() const { return m_nPid; }  // 0: none runs
    // Thread of the service that bears strName, such as "logd.intake"; 0: none.
    pid_t Thread(const std::string& strName) const;

    const std::string& Root() const { return m_Directory.Path(); }
    std::string Path(const std::string& strPath) const { return Root() + strPath; }
    std::uint16_t RecordPort() const { return m_wRecordPort; }
    std::uint16_t ConsolePort() const { return m_wConsolePort; }
    std::uint16_t ControlPort(int nIndex) const {
        return m_wControlPorts.at(static_cast<std::size_t>(nIndex));
    }

    std::string ReadFile(const std::string& strPath) const;  // empty when there is none
    void WriteFile(const std::string& strPath, const std::string& strContent) const;
    std::string Trace() const { return ReadFile("/var/log/logs.txt"); }
    std::string Output() const { return ReadFile("/stdout"); }

    // Names in a directory of the root, sorted.
    std::vector<std::string> List(const std::string& strDirectory) const;

    // Configuration of the root as it was made.
    std::string DefaultConfiguration() const;

private:
    bool IsRunning() const;  // launched and not ended
    pid_t FindDetached() const;

    std::string m_strProgram;
    const CTempDir m_Directory;
    std::uint16_t m_wRecordPort;
    std::uint16_t m_wConsolePort;
    std::uint16_t m_wAgentPort;
    std::vector<std::uint16_t> m_wControlPorts;
    std::map<std::string, std::string> m_mapEnvironment;
    pid_t m_nPid = 0;
};
