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
#include <map>
#include <memory>
#include <string>

#include "reading/ClientNames.h"
#include "reading/RecordFormat.h"
#include "transfer/ProgressBars.h"
#include "transfer/RecordSink.h"

class CLiveOutput : public CRecordSink {
public:
    // strForm: one that is usable for live records. strFile: appended to; empty: standard output.
    // names and bars, which make way for lines on a terminal, live as long as this. Throws
    // std::runtime_error, naming the path, when it cannot be opened.
    CLiveOutput(std::string strForm, const std::string& strFile, const CClientNames& names,
                CProgressBars& bars);
    ~CLiveOutput() override;

    // Writes the record; it is out when this returns. Throws std::runtime_error when it cannot be
    // written.
    void OnRecord(const std::string& strAppliance, std::uint64_t nPosition,
                  const LogRecord& record) override;

    void OnFile(const std::string&, const std::string&) override {}

private:
    CRecordFormat& FormOf(const std::string& strAppliance);

    const std::string m_strForm;
    const CClientNames& m_Names;
    CProgressBars& m_Bars;
    const bool m_bColour;
    const bool m_bTerminal;
    std::map<std::string, std::unique_ptr<CRecordFormat>> m_Forms;  // by appliance
    std::FILE* m_pFile;
};
