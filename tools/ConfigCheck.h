// Looks through a log.conf as the service reads it (docs/configuration.md) and tells what is wrong
// with it, where, and what to do. Ports that another program has, and everything else that is no
// matter of the file, are not looked at.
//
// Threads: any; each call works on its own.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct ConfigFinding {
    std::size_t nLine;      // from 1 on; 0: the file as a whole
    int nStatus;            // the exit status it means by itself; 0: a warning, the service starts
    std::string strText;    // what is wrong, and what the service makes of it
    std::string strAdvice;  // what to do
};

struct ConfigReport {
    int nStatus = 0;  // the exit status that the service would end with; 0: it would start
    std::vector<ConfigFinding> findings;  // in the order of the lines

    // Adds a finding; a failure is the status, too, unless there was one before.
    void Warn(std::size_t nLine, std::string strText, std::string strAdvice);
    void Fail(std::size_t nLine, int nFindingStatus, std::string strText, std::string strAdvice);

private:
    void Add(ConfigFinding finding);  // behind the others of its line
};

ConfigReport CheckConfig(const std::string& strPath);
