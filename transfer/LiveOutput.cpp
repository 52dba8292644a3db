#include "transfer/LiveOutput.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "reading/Output.h"

namespace {

// The forms know one source of records, this machine. These put the appliance in.

std::string WithJsonMember(std::string strLine, const std::string& strAppliance) {
    strLine.resize(strLine.rfind('}'));
    return strLine + ",\"appliance\":" + nlohmann::json(strAppliance).dump() + "}\n";
}

// The host name is the third word of the line.
std::string WithSyslogHost(std::string strLine, const std::string& strAppliance) {
    const std::size_t nHost = strLine.find(' ', strLine.find(' ') + 1) + 1;
    return strLine.replace(nHost, strLine.find(' ', nHost) - nHost, strAppliance);
}

}  // namespace

CLiveOutput::CLiveOutput(std::string strFormat, const std::string& strFile,
                         const CClientNames& names)
    : m_strForm(std::move(strFormat)),
      m_pFormat(MakeRecordFormat(m_strForm, names, strFile.empty() && WantsColour())),
      m_bTerminal(strFile.empty() && isatty(STDOUT_FILENO) == 1),
      m_pFile(strFile.empty() ? stdout : std::fopen(strFile.c_str(), "ae")) {
    if (m_pFile == nullptr) {
        throw std::runtime_error(fmt::format("{}: {}", strFile, std::strerror(errno)));
    }
    if (strFile.empty()) {
        EndQuietlyWithReader();
    }
}

CLiveOutput::~CLiveOutput() {
    if (m_pFile != stdout) {
        std::fclose(m_pFile);  // all is out already
    }
}

void CLiveOutput::Write(const std::string& strAppliance, const LogRecord& record) {
    const std::string strLine = Line(strAppliance, record);
    if (std::fputs(strLine.c_str(), m_pFile) == EOF || std::fflush(m_pFile) != 0) {
        throw std::runtime_error(
            fmt::format("live records cannot be written: {}", std::strerror(errno)));
    }
}

std::string CLiveOutput::Line(const std::string& strAppliance, const LogRecord& record) {
    fmt::memory_buffer buffer;
    m_pFormat->Append(buffer, {record, {}, 0});
    std::string strLine = fmt::to_string(buffer);
    if (m_strForm == "json") {
        return WithJsonMember(std::move(strLine), strAppliance);
    }
    if (m_strForm == "syslog") {
        return WithSyslogHost(std::move(strLine), strAppliance);
    }
    return strAppliance + " " + strLine;
}
