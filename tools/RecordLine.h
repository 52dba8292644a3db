// A record as one line for people: time, client, type, text.
#pragma once

#include <string>

#include "logstore/LogRecord.h"
#include "support/IniFile.h"

// Knows the clients' names and writes the lines.
class CRecordLines {
public:
    // strConfig: path of the log.conf that names the clients; empty: they are numbered. Throws
    // std::runtime_error, naming the path, when it cannot be read.
    explicit CRecordLines(const std::string& strConfig);

    // The line, without a line feed; control characters of the text stand as dots.
    std::string Line(const LogRecord& record) const;

private:
    CIniFile m_Config;
};
