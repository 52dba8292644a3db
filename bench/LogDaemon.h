// The log daemons of Debian that people would use instead of the service, each in a private
// directory of its own: rsyslogd and syslog-ng with one UDP input on 127.0.0.1 and one file,
// busybox syslogd with a private /dev/log, which is the only input that it has, dlt-daemon with its
// named pipe and its offline trace. Nothing is written
// through to the disk, no names are looked up, no rate is limited; all else is as they come.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/PacedSender.h"
#include "peers/TempDir.h"

struct DaemonRecipe;

// A daemon that is there to be started.
struct DaemonProgram {
    const DaemonRecipe* pRecipe = nullptr;
    std::string strPrefix;  // directory that its package was unpacked to; empty: it is installed

    std::string Path() const;  // empty when it is not there
};

// The names of all daemons: rsyslogd, syslog-ng, busybox, dlt-daemon.
std::vector<std::string> DaemonNames();

// One of them below strPrefix or, when it is not there, installed. Its Path() may be empty.
DaemonProgram FindDaemon(const std::string& strName, const std::string& strPrefix);

class CLogDaemon {
public:
    // Makes the directory and the configuration. Throws std::system_error.
    explicit CLogDaemon(const DaemonProgram& program);
    ~CLogDaemon();  // ends the process and removes the directory
    CLogDaemon(const CLogDaemon&) = delete;
    CLogDaemon& operator=(const CLogDaemon&) = delete;

    // Starts the daemon in the foreground, without waiting.
    void Launch();

    // Starts it and waits until it takes messages. Throws std::runtime_error, with what the daemon
    // said, when it does not.
    void Start();

    // Asks whether it takes messages: COpenWatch.
    std::function<bool()> Probe() const;

    pid_t Pid() const { return m_nPid; }
    std::string OutputFile() const { return m_strDirectory + "/out"; }

    // Bytes of a stored message, of a daemon whose output is a directory of files with messages of
    // one size; 0: it writes lines to one file.
    std::size_t StoredBytes() const;

    // What a message to it begins with, and what hands messages over. The last waits while a local
    // socket is full.
    std::string MessageHead() const;
    CSyslogSender::Send Sender() const;

private:
    [[noreturn]] void Become() const;
    std::string LocalSocket() const { return m_strDirectory + "/dev/log"; }
    std::string Pipe() const { return m_strDirectory + "/dlt"; }

    DaemonProgram m_Program;
    const CTempDir m_Directory;
    const std::string& m_strDirectory = m_Directory.Path();
    std::uint16_t m_wPort;
    pid_t m_nPid = 0;  // 0: not started
};
