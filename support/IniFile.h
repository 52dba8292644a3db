// One INI-style text file in memory: sections of "key = value" entries, with comments and blank
// lines kept in their places, so that a file that is read, changed and written back keeps them.
// A line, once stripped at both ends, is a comment when it begins with ';', '#' or "//", a section
// header when it stands in square brackets, and else an entry, split at its first '='. Anything
// else, and other lines of one or two characters, are dropped. Comments end no entry, and there are
// no quotes, escapes or continued lines. The object neither locks the file nor traces failures.
//
// Threads: no lock inside; an object belongs to the function that made it.
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// One line of the file. The entry of a comment or a blank line has the key "__m_note0",
// "__m_note1", ..., counted anew after each section header, and the line's text as value.
struct IniEntry {
    std::string section;  // "__g_header__" in front of the first section header
    std::string key;
    std::string value;
};

class CIniFile {
public:
    CIniFile() = default;
    CIniFile(const CIniFile&) = delete;
    CIniFile& operator=(const CIniFile&) = delete;

    // Adds the content of a file to the object, line by line as SetValue does. A line of more than
    // 1023 bytes counts as several lines; a NUL byte ends the text of its line. True when the whole
    // file was read; false when it cannot be opened, not read to its end, or is longer than
    // kMaxFileBytes: the lines in front of the error are kept then, and errno says why.
    [[nodiscard]] bool Load(const std::string& strPath);

    // The value last set for the section and the key, compared byte for byte; empty when there is
    // none. Pairs whose section and key read alike when written one after the other share one value
    // here.
    std::string GetValue(const std::string& strSection, const std::string& strKey) const;

    // Gives the key of the section a value: a known one keeps its place in the file, a new one goes
    // behind all others.
    void SetValue(const std::string& strSection, const std::string& strKey,
                  const std::string& strValue);

    // Writes the object to a file, which is emptied first. Each section is written once, where it
    // first begins, with all its entries. True when every line is out; false when the file cannot
    // be opened or written: it keeps what was written until then. The lines of a section without a
    // name are written only if one of them follows another section's.
    [[nodiscard]] bool Save(const std::string& strPath) const;

    // Takes blanks, tabs, carriage returns and line feeds off both ends, in place.
    static std::string& Trim(std::string& strText);

    // What Load takes a line for. strLine: trimmed.
    enum class ELine { kNote, kSection, kEntry, kDropped };
    static ELine Classify(std::string_view strLine);

    // Bytes that are read as one line at most; what is behind them counts as the next line.
    static constexpr std::size_t kMaxLineBytes = 1023;

    // A longer file is no configuration; to hold its lines would take fifty times as much memory.
    static constexpr std::size_t kMaxFileBytes = std::size_t{1024} * 1024;

private:
    struct Place;  // where Load stands in a file

    using EntryName = std::pair<std::string_view, std::string_view>;  // section and key

    // Understands one trimmed line of a file and moves the place on.
    void AddLine(const std::string& strLine, Place& place);

    // The sections in the order in which they are written.
    std::vector<std::string_view> SectionOrder() const;

    // Values by section name and key name, with nothing between the two.
    std::map<std::string, std::string> m_mapValues;

    // Each pair of section and key once, in the order in which they came.
    std::list<IniEntry> m_listEntries;

    // Finds an entry without a walk. The names are views into m_listEntries, whose entries never
    // move and never change their names.
    std::map<EntryName, IniEntry*> m_mapEntries;
};
