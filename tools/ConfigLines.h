// A log.conf as the service reads it, with the lines where things stand, and what is wrong with the
// lines themselves.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/IniFile.h"
#include "tools/ConfigCheck.h"

// A key of a section.
struct ConfigName {
    std::string strSection;
    std::string strKey;

    bool operator==(const ConfigName&) const = default;

    // The service looks section and key up as one word.
    std::string Word() const { return strSection + strKey; }
};

class CConfigLines {
public:
    struct Entry {
        ConfigName name;
        std::size_t nLine;
    };
    using Sections = std::map<std::string, std::size_t>;

    // Adds what is wrong with lines to report, which lives as long as this.
    explicit CConfigLines(ConfigReport& report) : m_Report(report) {}

    // False, with the reason in errno, when the file cannot be read.
    bool Load(const std::string& strPath);

    // The value that the service finds; empty: none.
    std::string Value(const ConfigName& name) const {
        return m_Config.GetValue(name.strSection, name.strKey);
    }

    // Whether the file sets it, be it to nothing.
    bool Has(const ConfigName& name) const { return m_mapLines.contains(name.Word()); }

    // Where the value stands that counts; else where its section begins; else 0.
    std::size_t LineOf(const ConfigName& name) const;

    // All sections, with the line where each first begins; all entries, as they come.
    const Sections& AllSections() const { return m_mapSections; }
    const std::vector<Entry>& AllEntries() const { return m_Entries; }

private:
    void CutIntoLines(const std::string& strContent);
    void ReadLong(std::string_view strLine, std::size_t nLine);
    void ReadLine(std::string strLine, std::size_t nLine);
    void OpenSection(std::string strName, std::size_t nLine);
    void AddEntry(std::string strKey, std::size_t nLine);

    ConfigReport& m_Report;
    CIniFile m_Config;                        // what the service itself reads
    std::optional<std::string> m_optSection;  // that the line is in
    Sections m_mapSections;
    std::vector<Entry> m_Entries;
    std::map<std::string, std::size_t> m_mapLines;  // last line by section and key, as one word
};

// A text of the file, fit to be shown.
std::string ShownText(std::string_view strText);

// What to do about a line that the service drops.
std::string DroppedAdvice(const std::string& strLine);
