// What the directories of day's files must hold, worked out from the records sent and from what was
// done to files, disk and date: every file byte for byte (docs/protocols.md, "Day's file").
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "logstore/LogRecord.h"
#include "peers/Service.h"

struct StoreModel {
    // A file's bytes, shared with who has it open; null: a link to nowhere, which cannot be opened.
    using File = std::shared_ptr<std::string>;
    using Directory = std::map<std::string, File>;
    static constexpr std::size_t kEnough = std::string::npos;

    Directory log;
    Directory history;
    bool bHistory = true;         // there is a history directory
    std::size_t nRoom = kEnough;  // of a full disk: where the last page of the open file ends
    std::string strName;          // of the file opened last, whether that succeeded or not
    File pOpen;                   // null: none, records are lost
    LogFileHeader header{};

    // The service starts and clears the directory. False: it must end, with a file that is none.
    bool Start(const std::string& strToday) {
        header = {};
        if (!Open(strToday)) {
            return false;
        }
        log = {{strToday, pOpen}};
        return true;
    }
    // The day changes.
    void Switch(const std::string& strToday) {
        const std::string strBefore = strName;
        Open(strToday);
        if (!bHistory) {
            return;
        }
        if (history.size() > 3) {
            history.erase(history.begin());  // the oldest, since names are dates
        }
        if (const auto before = log.extract(strBefore)) {
            history[strBefore] = before.mapped();
        }
    }
    // A record is handled.
    void Write(const LogRecord& record) {
        if (pOpen == nullptr) {
            return;
        }
        const std::size_t nOffset = NextSlot();
        const std::size_t nFits = nOffset < nRoom ? std::min(kRecordBytes, nRoom - nOffset) : 0;
        Put(nOffset, &record, nFits);
        if (nFits == kRecordBytes) {
            Put(0, &header, sizeof(header));
        }
    }
    // The service was killed with these records under way, and the open file now holds strFound.
    // Only the first of them can have been counted, then some that were stored only, then a part.
    void Kill(const std::vector<LogRecord>& records, const std::string& strFound) {
        LogFileHeader found{};
        strFound.copy(reinterpret_cast<char*>(&found), sizeof(found));
        auto record = records.begin();
        for (; record != records.end() && header.dwCount != found.dwCount; ++record) {
            Write(*record);
        }
        bool bWhole = true;
        for (std::size_t n = 0; bWhole && n < kMostAheadOfHeader && record != records.end(); ++n) {
            const std::size_t nOffset = NextSlot();
            const std::string strPart =
                strFound.substr(std::min(strFound.size(), nOffset), kRecordBytes);
            const auto* const pRecord = reinterpret_cast<const char*>(&*record++);
            const auto end = std::mismatch(strPart.begin(), strPart.end(), pRecord).first;
            Put(nOffset, pRecord, static_cast<std::size_t>(end - strPart.begin()));
            bWhole = end == strPart.begin() + kRecordBytes;
        }
        pOpen = nullptr;
    }

    // The open file is the one that the directory has under its name.
    bool IsWhole() const {
        const auto entry = log.find(strName);
        return pOpen != nullptr && entry != log.end() && entry->second == pOpen;
    }
    // How the service's directories differ; empty: they do not.
    std::string Difference(const CService& service) const {
        const std::string strLog = Difference(service, "/log/", log);
        return strLog.empty() && bHistory ? Difference(service, "/hislog/", history) : strLog;
    }

private:
    bool Open(const std::string& strToday) {
        strName = strToday;
        pOpen = log.try_emplace(strToday, std::make_shared<std::string>()).first->second;
        if (pOpen == nullptr) {
            return false;
        }
        if (pOpen->empty() && nRoom == kEnough) {
            header.dwMagic = LOG_RECORD_MAGIC;
            header.dwCount = 0;
            Put(0, &header, sizeof(header));
        }
        LogFileHeader found{};
        if (pOpen->copy(reinterpret_cast<char*>(&found), sizeof(found)) != sizeof(found) ||
            found.dwMagic != LOG_RECORD_MAGIC) {
            pOpen = nullptr;
            return false;
        }
        header = found;
        return true;
    }
    // Counts one more record. Where its slot begins.
    std::size_t NextSlot() {
        header.dwCount += (header.dwCount + 1) % kLogFileUnits == 0 ? 2 : 1;
        return header.dwCount % kLogFileUnits * kRecordBytes;
    }
    // Writes into the open file, behind a gap of zeros where it ends before.
    void Put(std::size_t nOffset, const void* pData, std::size_t nLen) const {
        if (nLen > 0) {
            pOpen->resize(std::max(pOpen->size(), nOffset + nLen));
            pOpen->replace(nOffset, nLen, static_cast<const char*>(pData), nLen);
        }
    }

    static std::string Difference(const CService& service, const std::string& strPath,
                                  const Directory& wanted) {
        std::error_code gone;  // the service may move one meanwhile
        std::size_t nFiles = 0;
        for (const auto& entry : std::filesystem::directory_iterator(service.Path(strPath), gone)) {
            nFiles += entry.path().extension() == ".log" ? 1 : 0;
        }
        for (const auto& [strName, pFile] : wanted) {
            const std::string strWanted = pFile == nullptr ? "" : *pFile;
            const std::string strFound = service.ReadFile(strPath + strName);
            const auto at =
                std::mismatch(strFound.begin(), strFound.end(), strWanted.begin(), strWanted.end());
            if (at.first != strFound.end() || at.second != strWanted.end()) {
                return fmt::format("{}{}: {} bytes instead of {}, byte {} differs", strPath,
                                   strName, strFound.size(), strWanted.size(),
                                   at.first - strFound.begin());
            }
        }
        return nFiles == wanted.size() ? "" : fmt::format("{} files in {}", nFiles, strPath);
    }
};
