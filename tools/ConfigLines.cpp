#include "tools/ConfigLines.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

#include "reading/TextRepair.h"

std::string ShownText(std::string_view strText) {
    constexpr std::size_t kMost = 60;
    return fmt::format("'{}{}'", Repaired(strText.substr(0, kMost), EControls::kDots),
                       strText.size() > kMost ? "..." : "");
}

std::string DroppedAdvice(const std::string& strLine) {
    if (strLine.starts_with("\xEF\xBB\xBF")) {
        return "save the file without the byte order mark at its begin";
    }
    if (strLine.starts_with('[')) {
        return "a section's line is '[name]' with nothing behind it";
    }
    return strLine.size() < 3 ? "remove it: a line has three characters or more"
                              : "write 'key = value', or begin it with '#'";
}

bool CConfigLines::Load(const std::string& strPath) {
    if (!m_Config.Load(strPath)) {
        return false;
    }
    std::ifstream file(strPath, std::ios::binary);
    CutIntoLines(std::string{std::istreambuf_iterator<char>(file), {}});
    return true;
}

void CConfigLines::CutIntoLines(const std::string& strContent) {
    std::size_t nLine = 1;
    for (std::size_t nAt = 0; nAt < strContent.size(); ++nLine) {
        const std::size_t nEnd = std::min(strContent.find('\n', nAt), strContent.size());
        ReadLong(std::string_view(strContent).substr(nAt, nEnd - nAt), nLine);
        nAt = nEnd + 1;
    }
}

// The lines that the service sees are shorter than those of an editor when these are too long.
void CConfigLines::ReadLong(std::string_view strLine, std::size_t nLine) {
    if (strLine.size() > CIniFile::kMaxLineBytes) {
        m_Report.Warn(nLine,
                      fmt::format("has {} bytes: every {} are read as a line of their own",
                                  strLine.size(), CIniFile::kMaxLineBytes),
                      "shorten it");
    }
    for (std::size_t nDone = 0; nDone < strLine.size(); nDone += CIniFile::kMaxLineBytes) {
        ReadLine(std::string(strLine.substr(nDone, CIniFile::kMaxLineBytes)), nLine);
    }
}

void CConfigLines::ReadLine(std::string strLine, std::size_t nLine) {
    const std::size_t nText = strLine.find('\0');
    if (nText != std::string::npos) {
        m_Report.Warn(nLine, "has a NUL byte: what is behind it is not read", "remove it");
        strLine.resize(nText);
    }
    CIniFile::Trim(strLine);
    switch (CIniFile::Classify(strLine)) {
        case CIniFile::ELine::kNote:
            break;
        case CIniFile::ELine::kSection:
            OpenSection(strLine.substr(1, strLine.size() - 2), nLine);
            break;
        case CIniFile::ELine::kEntry:
            AddEntry(strLine.substr(0, strLine.find('=')), nLine);
            break;
        case CIniFile::ELine::kDropped:
            m_Report.Warn(nLine, fmt::format("{} is not read", ShownText(strLine)),
                          DroppedAdvice(strLine));
            break;
    }
}

void CConfigLines::OpenSection(std::string strName, std::size_t nLine) {
    m_optSection = CIniFile::Trim(strName);
    const auto [itSection, bNew] = m_mapSections.emplace(strName, nLine);
    if (!bNew) {
        m_Report.Warn(nLine,
                      fmt::format("section [{}] is there in line {} already: both are read as one",
                                  strName, itSection->second),
                      "join them, or correct the name");
    }
}

void CConfigLines::AddEntry(std::string strKey, std::size_t nLine) {
    CIniFile::Trim(strKey);
    if (!m_optSection) {
        m_Report.Warn(
            nLine, fmt::format("{} stands in front of all sections: not read", ShownText(strKey)),
            "move it into its section");
        return;
    }
    m_Entries.push_back({{*m_optSection, strKey}, nLine});
    m_mapLines[m_Entries.back().name.Word()] = nLine;
}

std::size_t CConfigLines::LineOf(const ConfigName& name) const {
    const auto itLine = m_mapLines.find(name.Word());
    if (itLine != m_mapLines.end()) {
        return itLine->second;
    }
    const auto itSection = m_mapSections.find(name.strSection);
    return itSection == m_mapSections.end() ? 0 : itSection->second;
}
