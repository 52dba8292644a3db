// The configuration file: any bytes to CIniFile, written back and read again, and to the check of
// tarvik-log. What was written reads as what it was written from.
//
// Input: the file.
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Check.h"
#include "fuzz/ServiceState.h"
#include "support/IniFile.h"
#include "tools/ConfigCheck.h"

namespace {

const char* const kFile = "/log.conf";
const char* const kWritten = "/written.conf";
const char* const kAgain = "/again.conf";

std::vector<std::string> LinesOf(const std::string& strText) {
    std::vector<std::string> lines;
    std::size_t nBegin = 0;
    while (nBegin < strText.size()) {
        const std::size_t nEnd = std::min(strText.find('\n', nBegin), strText.size());
        lines.push_back(strText.substr(nBegin, nEnd - nBegin));
        nBegin = nEnd + 1;
    }
    return lines;
}

// Loads a file of the root and writes it to another.
void Rewrite(CIniFile& file, const char* szFrom, const char* szTo) {
    Check(file.Load(RootPath(szFrom)), "a file is read whole");
    Check(file.Save(RootPath(szTo)), "a file is written");
}

// False for what the format cannot keep: sections without a name, names that the class uses itself,
// and lines that grow beyond the longest.
bool CanBeKept(const std::string& strInput, const std::vector<std::string>& written) {
    if (strInput.find("__m_note") != std::string::npos ||
        strInput.find("__g_header__") != std::string::npos) {
        return false;
    }
    for (const std::string& strLine : written) {
        if (strLine.size() >= CIniFile::kMaxLineBytes) {
            return false;
        }
    }
    for (std::string strLine : LinesOf(strInput)) {
        strLine.resize(std::min(strLine.size(), strLine.find('\0')));
        CIniFile::Trim(strLine);
        if (strLine.starts_with('[') &&
            strLine.find_first_not_of(" \t\r\n", 1) == strLine.size() - 1) {
            return false;
        }
    }
    return true;
}

// Each entry of the text has the value that both objects give, or a later one in its place.
void CheckValues(const std::vector<std::string>& lines, const CIniFile& first,
                 const CIniFile& again) {
    std::string strSection = "__g_header__";
    for (std::string strLine : lines) {
        CIniFile::Trim(strLine);
        const CIniFile::ELine eLine = CIniFile::Classify(strLine);
        if (eLine == CIniFile::ELine::kSection) {
            strSection = strLine.substr(1, strLine.size() - 2);
        } else if (eLine == CIniFile::ELine::kEntry) {
            std::string strKey = strLine.substr(0, strLine.find('='));
            CIniFile::Trim(strKey);
            Check(first.GetValue(strSection, strKey) == again.GetValue(strSection, strKey),
                  "a value survives writing and reading");
        }
    }
}

void CheckReport(const ConfigReport& report, std::size_t nBytes) {
    for (const ConfigFinding& finding : report.findings) {
        Check(finding.nLine <= nBytes + 1, "a finding is in a line of the file");
        Check(!finding.strText.empty(), "a finding says something");
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PrepareService();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t nLen) {
    const std::string strInput(reinterpret_cast<const char*>(pData), nLen);
    PutFile(kFile, strInput);
    CIniFile first;
    Rewrite(first, kFile, kWritten);
    CIniFile again;
    Rewrite(again, kWritten, kAgain);
    const std::string strWritten = GetFile(kWritten);
    const std::vector<std::string> lines = LinesOf(strWritten);
    if (CanBeKept(strInput, lines)) {
        Check(GetFile(kAgain) == strWritten, "what was written is written the same way again");
        CheckValues(lines, first, again);
    }
    CheckReport(CheckConfig(RootPath(kFile)), nLen);
    return 0;
}
