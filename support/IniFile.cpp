// The syntax of the configuration file: how a line is understood and how it is written back.
#include "support/IniFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <set>

#include "support/ScopeGuard.h"

namespace {

constexpr std::string_view kHeaderSection = "__g_header__";
constexpr std::string_view kNoteKey = "__m_note";
constexpr std::string_view kBlanks = " \t\r\n";

using EntryRefs = std::vector<const IniEntry*>;  // entries of one section, in list order

std::string Trimmed(std::string strText) {
    return CIniFile::Trim(strText);
}

// Writes the texts one after the other, whatever their length; each ends at its first NUL, if any.
bool Put(std::FILE* pFile, std::initializer_list<const char*> listTexts) {
    for (const char* szText : listTexts) {
        if (std::fputs(szText, pFile) == EOF) {
            return false;
        }
    }
    return true;
}

bool PutEntry(std::FILE* pFile, const IniEntry& entry) {
    if (entry.key.starts_with(kNoteKey)) {
        return Put(pFile, {entry.value.c_str(), "\n"});
    }
    return Put(pFile, {entry.key.c_str(), " = ", entry.value.c_str(), "\n"});
}

// Writes a section whole: its header, if it has one, and its entries.
bool PutSection(std::FILE* pFile, const EntryRefs& listEntries) {
    const std::string& strName = listEntries.front()->section;
    if (strName != kHeaderSection && !Put(pFile, {"[", strName.c_str(), "]\n"})) {
        return false;
    }
    return std::all_of(listEntries.begin(), listEntries.end(),
                       [pFile](const IniEntry* pEntry) { return PutEntry(pFile, *pEntry); });
}

}  // namespace

struct CIniFile::Place {
    std::string strSection{kHeaderSection};
    std::uint32_t nNotes = 0;  // note entries since the section was opened
};

bool CIniFile::Load(const std::string& strPath) {
    std::FILE* pFile = std::fopen(strPath.c_str(), "rte");
    if (pFile == nullptr) {
        return false;
    }
    const pcxx::ScopeGuardImpl1 guard(std::fclose, pFile);
    Place place;
    std::array<char, kMaxLineBytes + 1> szPiece;  // with its NUL
    std::size_t nBytes = 0;
    while (std::fgets(szPiece.data(), szPiece.size(), pFile) != nullptr) {
        std::string strLine = szPiece.data();
        nBytes += std::max<std::size_t>(strLine.size(), 1);
        if (nBytes > kMaxFileBytes) {
            errno = EFBIG;
            return false;
        }
        AddLine(Trim(strLine), place);
    }
    return std::ferror(pFile) == 0;
}

void CIniFile::AddLine(const std::string& strLine, Place& place) {
    switch (Classify(strLine)) {
        case ELine::kNote:
            SetValue(place.strSection, std::string(kNoteKey) + std::to_string(place.nNotes),
                     strLine);
            ++place.nNotes;
            break;
        case ELine::kSection:
            place.strSection = Trimmed(strLine.substr(1, strLine.size() - 2));
            place.nNotes = 0;
            break;
        case ELine::kEntry: {
            const std::size_t nEqual = strLine.find('=');
            SetValue(place.strSection, Trimmed(strLine.substr(0, nEqual)),
                     Trimmed(strLine.substr(nEqual + 1)));
            break;
        }
        case ELine::kDropped:
            break;
    }
}

std::string CIniFile::GetValue(const std::string& strSection, const std::string& strKey) const {
    const auto itValue = m_mapValues.find(strSection + strKey);
    return itValue == m_mapValues.end() ? std::string() : itValue->second;
}

void CIniFile::SetValue(const std::string& strSection, const std::string& strKey,
                        const std::string& strValue) {
    m_mapValues[strSection + strKey] = strValue;
    const auto itEntry = m_mapEntries.find(EntryName{strSection, strKey});
    if (itEntry != m_mapEntries.end()) {
        itEntry->second->value = strValue;
        return;
    }
    IniEntry& entry = m_listEntries.emplace_back(IniEntry{strSection, strKey, strValue});
    m_mapEntries.emplace(EntryName{entry.section, entry.key}, &entry);
}

std::vector<std::string_view> CIniFile::SectionOrder() const {
    std::vector<std::string_view> listOrder;
    std::set<std::string_view> setKnown;
    std::string_view strPrevious;
    for (const IniEntry& entry : m_listEntries) {
        if (entry.section != strPrevious && setKnown.insert(entry.section).second) {
            listOrder.push_back(entry.section);
        }
        strPrevious = entry.section;
    }
    return listOrder;
}

bool CIniFile::Save(const std::string& strPath) const {
    std::FILE* pFile = std::fopen(strPath.c_str(), "wte");
    if (pFile == nullptr) {
        return false;
    }
    const pcxx::ScopeGuardImpl1 guard(std::fclose, pFile);
    std::map<std::string_view, EntryRefs> mapSections;
    for (const IniEntry& entry : m_listEntries) {
        mapSections[entry.section].push_back(&entry);
    }
    for (const std::string_view strSection : SectionOrder()) {
        if (!PutSection(pFile, mapSections[strSection])) {
            return false;
        }
    }
    // What stdio still holds goes out here, as nobody looks at the result of closing.
    return std::fflush(pFile) == 0;
}

std::string& CIniFile::Trim(std::string& strText) {
    strText.erase(strText.find_last_not_of(kBlanks) + 1);  // npos + 1 is 0: nothing but blanks
    strText.erase(0, strText.find_first_not_of(kBlanks));
    return strText;
}

CIniFile::ELine CIniFile::Classify(std::string_view strLine) {
    if (strLine.empty() || strLine.front() == ';' || strLine.front() == '#' ||
        strLine.starts_with("//")) {
        return ELine::kNote;
    }
    if (strLine.size() < 3) {
        return ELine::kDropped;
    }
    if (strLine.front() == '[' && strLine.back() == ']') {
        return ELine::kSection;
    }
    return strLine.find('=') == std::string_view::npos ? ELine::kDropped : ELine::kEntry;
}
