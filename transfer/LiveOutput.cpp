#include "transfer/LiveOutput.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "reading/Output.h"

CLiveOutput::CLiveOutput(std::string strForm, const std::string& strFile, const CClientNames& names,
                         CProgressBars& bars)
    : m_strForm(std::move(strForm)),
      m_Names(names),
      m_Bars(bars),
      m_bColour(strFile.empty() && WantsColour()),
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

void CLiveOutput::OnRecord(const std::string& strAppliance, std::uint64_t /*nPosition*/,
                           const LogRecord& record) {
    if (m_bTerminal) {
        m_Bars.Clear();
    }
    fmt::memory_buffer buffer;
    FormOf(strAppliance).Append(buffer, {record, {}, 0});
    if (std::fwrite(buffer.data(), 1, buffer.size(), m_pFile) != buffer.size() ||
        std::fflush(m_pFile) != 0) {
        throw std::runtime_error(
            fmt::format("live records cannot be written: {}", std::strerror(errno)));
    }
}

CRecordFormat& CLiveOutput::FormOf(const std::string& strAppliance) {
    constexpr std::size_t kMostForms = 1000;  // a peer may call itself anything, time and again
    const auto itKnown = m_Forms.find(strAppliance);
    if (itKnown != m_Forms.end()) {
        return *itKnown->second;
    }
    if (m_Forms.size() >= kMostForms) {
        m_Forms.clear();
    }
    auto& pForm = m_Forms[strAppliance];
    pForm = MakeRecordFormat(m_strForm, {m_Names, m_bColour, strAppliance});
    return *pForm;
}
