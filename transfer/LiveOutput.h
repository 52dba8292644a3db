// Where live records go: a line for each on standard output or at the end of a file, with the name
// of the appliance that sent it.
//
// short   10.0.0.1 2026-11-22 14:05:09 beta  error   link to eth0 is slow
// json    {"time":...,"text":"link to eth0 is slow","appliance":"10.0.0.1"}
// syslog  <131>1 2026-11-22T14:05:09+01:00 10.0.0.1 beta - - - link to eth0 is slow
//
// Threads: an object belongs to one thread.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <string>

#include "reading/ClientNames.h"
#include "reading/RecordFormat.h"

class CLiveOutput {
public:
    // strFormat: short, json or syslog. strFile: appended to; empty: standard output. names live as
    // long as this. Throws std::runtime_error, naming the path, when it cannot be opened.
    CLiveOutput(std::string strFormat, const std::string& strFile, const CClientNames& names);
    ~CLiveOutput();
    CLiveOutput(const CLiveOutput&) = delete;
    CLiveOutput& operator=(const CLiveOutput&) = delete;

    // Writes the record; it is out when this returns. Throws std::runtime_error when it cannot be
    // written.
    void Write(const std::string& strAppliance, const LogRecord& record);

    bool IsOnTerminal() const { return m_bTerminal; }

private:
    std::string Line(const std::string& strAppliance, const LogRecord& record);

    std::string m_strForm;
    std::unique_ptr<CRecordFormat> m_pFormat;
    bool m_bTerminal;
    std::FILE* m_pFile;
};
