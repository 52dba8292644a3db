#include "logstore/LogFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/Progress.h"
#include "core/ServiceFiles.h"
#include "core/Trace.h"
#include "support/Date.h"
#include "support/Directory.h"
#include "support/ParseInt.h"
#include "support/ShellCommand.h"
#include "support/SystemPath.h"
#include "support/UniqueFd.h"

namespace {

// With more than these the oldest goes before the move.
constexpr std::size_t kMostHistoryFiles = 3;

struct HistoryFiles {
    std::size_t nCount = 0;
    std::uint32_t dwOldest = 0xFFFFFFFF;  // date number of the oldest
    std::string strOldest;  // its name; empty when no name has a number below the start
};

// Takes a directory entry into account when its name is that of a history file.
void CountHistoryFile(HistoryFiles& files, const std::string& strName) {
    const std::size_t nEnd = strName.find(".log");
    Progress("switch file 9.........\n");
    if (nEnd == std::string::npos) {
        return;
    }
    const auto dwDate = static_cast<std::uint32_t>(ParseInt(strName.substr(0, nEnd)));
    if (dwDate < files.dwOldest) {
        files.dwOldest = dwDate;
        files.strOldest = strName;
    }
    ++files.nCount;
}

// Whether a name of the history directory is that of a file: nothing else counts, and nothing else
// could be removed to make room.
bool IsRegular(const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_REG;
    }
    struct stat status {};
    const std::string strPath = SystemPath(kHistoryDirectory) + entry.d_name;
    return lstat(strPath.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Looks through the history directory. 0, or errno when it cannot be read.
int ScanHistory(HistoryFiles& files) {
    const auto pDir = OpenDirectory(SystemPath(kHistoryDirectory));
    const int nError = errno;  // before a print can change it
    Progress("switch file 6.........\n");
    if (pDir == nullptr) {
        Progress("switch file 11.........\n");
        Trace("failed to find files in loghistory directory!\n", "SwitchLogFile");
        return nError;
    }
    Progress("switch file 7.........\n");
    while (const dirent* pEntry = readdir(pDir.get())) {
        Progress("switch file 8.........\n");
        CountHistoryFile(files, IsRegular(*pEntry) ? pEntry->d_name : "");
    }
    return 0;
}

void RemoveOldest(const HistoryFiles& files) {
    if (files.nCount <= kMostHistoryFiles) {
        return;
    }
    Progress("switch file 12.........\n");
    if (!files.strOldest.empty()) {
        // A removal that fails costs a file too many, no record.
        RunShellCommand("rm -f " + QuoteForShell(SystemPath(kHistoryDirectory) + files.strOldest));
    }
    Progress("switch file 13.........\n");
}

// Opens a file, made if need be. -1: there can be none, or the name is that of something else: a
// link would lead to a file of somebody else's choice, a pipe would hold the service up.
int OpenRegular(const std::string& strPath) {
    constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    CUniqueFd file(open(strPath.c_str(), kFlags, 0666));
    struct stat status {};
    const bool bRegular =
        file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode);
    return bRegular ? file.Release() : -1;
}

// The count of the record that follows. Unit 0 is the header's: a count that falls on it is passed.
std::uint32_t CountBehind(std::uint32_t dwCount) {
    ++dwCount;
    return dwCount % kLogFileUnits == 0 ? dwCount + 1 : dwCount;
}

// Slots from that of a count to the last of the file.
std::uint32_t SlotsToTheEnd(std::uint32_t dwCount) {
    return kLogFileUnits - dwCount % kLogFileUnits;
}

off_t OffsetOf(std::uint32_t dwCount) {
    return static_cast<off_t>(dwCount % kLogFileUnits) * static_cast<off_t>(kRecordBytes);
}

int MoveToHistory(const std::string& strFile) {
    const std::string strCommand =
        "mv " + QuoteForShell(strFile) + " " + QuoteForShell(SystemPath(kHistoryDirectory));
    Progress("switch file 14.........\n");
    const int nResult = RunShellCommand(strCommand);
    Progress("switch file 15.........\n");
    if (nResult != 0) {
        Trace("failed to run unix command!\n", "SwitchLogFile");
        return nResult;
    }
    Progress("switch file 16.........\n");
    return 0;
}

}  // namespace

CLogFile::~CLogFile() {
    const CLockGuard guard(*this);
    CloseFile();
}

std::string CLogFile::GetTodayLogFileName() {
    int nYear = 0;
    int nMonth = 0;
    int nDay = 0;
    GetCurrentDate(nYear, nMonth, nDay);
    return SystemPath(kLogDirectory) + DayFileName(nYear, nMonth, nDay);
}

int CLogFile::OpenLogFile() {
    CloseFile();
    const std::string strName = GetTodayLogFileName();
    if (strName.empty()) {
        Trace("failed to get today log file name!\n");
        return 5;
    }
    m_strFileName = strName;
    m_nFile = OpenRegular(strName);
    if (m_nFile < 0) {
        Trace("failed to open file \n");
        return 10;
    }
    // Readers of other users need the file whatever the umask; one that may not change it goes on.
    fchmod(m_nFile, 0666);
    if (!LoadHeader()) {
        CloseFile();
        Trace("failed to read file header!!!\n");
        return 15;
    }
    return 0;
}

// Takes the open file's header into memory, or writes one into a file that is empty. Only a header
// that is whole and right gets into memory: what stood there before is carried into the next new
// file.
bool CLogFile::LoadHeader() {
    LogFileHeader header;
    ssize_t nBytes = read(m_nFile, &header, sizeof(header));
    if (nBytes == 0) {
        header = m_Header;
        header.dwMagic = LOG_RECORD_MAGIC;
        header.dwCount = 0;
        nBytes = pwrite(m_nFile, &header, sizeof(header), 0);
    }
    if (nBytes != static_cast<ssize_t>(sizeof(header)) || header.dwMagic != LOG_RECORD_MAGIC) {
        return false;
    }
    m_Header = header;
    return true;
}

void CLogFile::CloseFile() {
    if (m_nFile >= 0) {
        close(m_nFile);
        m_nFile = -1;
    }
}

int CLogFile::WriteRecords(const LogRecord* pRecords, std::size_t nRecords) {
    if (m_nFile < 0) {
        return 5;
    }
    std::uint32_t dwStored = 0;  // count of the newest record that is stored; 0: none is
    int nResult = 0;
    while (nRecords > 0) {
        const std::uint32_t dwFirst = CountBehind(m_Header.dwCount);
        const std::size_t nRun = std::min<std::size_t>(nRecords, SlotsToTheEnd(dwFirst));
        const std::uint32_t dwNewest = WriteRun(dwFirst, pRecords, nRun);
        m_Header.dwCount = dwFirst + static_cast<std::uint32_t>(nRun - 1);
        nResult = dwNewest == m_Header.dwCount ? nResult : 15;
        dwStored = dwNewest != 0 ? dwNewest : dwStored;
        pRecords += nRun;
        nRecords -= nRun;
    }
    // The header counts as far as records are stored, so that readers find them.
    return dwStored != 0 && WriteHeader(dwStored) != 0 ? 25 : nResult;
}

// Writes records into neighbouring slots, from that of count dwFirst on: with one call, and those
// that it does not store one by one, since the next may fit where one did not. Returns the count of
// the last that is stored; 0 when none is.
std::uint32_t CLogFile::WriteRun(std::uint32_t dwFirst, const LogRecord* pRecords,
                                 std::size_t nRecords) const {
    const off_t nBegin = OffsetOf(dwFirst);
    const ssize_t nWritten = pwrite(m_nFile, pRecords, nRecords * kRecordBytes, nBegin);
    const std::size_t nWhole = nWritten > 0 ? static_cast<std::size_t>(nWritten) / kRecordBytes : 0;
    std::uint32_t dwStored = nWhole > 0 ? dwFirst + static_cast<std::uint32_t>(nWhole - 1) : 0;
    for (std::size_t i = nWhole; i < nRecords; ++i) {
        const std::uint32_t dwCount = dwFirst + static_cast<std::uint32_t>(i);
        if (pwrite(m_nFile, &pRecords[i], kRecordBytes, OffsetOf(dwCount)) ==
            static_cast<ssize_t>(kRecordBytes)) {
            dwStored = dwCount;
        }
    }
    return dwStored;
}

int CLogFile::WriteHeader(std::uint32_t dwCount) const {
    LogFileHeader header = m_Header;
    header.dwCount = dwCount;
    return pwrite(m_nFile, &header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) ? 0
                                                                                               : -1;
}

int CLogFile::SwitchLogFile() {
    const std::string strPrevious = m_strFileName;
    Progress("switch file 1.........\n");
    {
        const CLockGuard guard(*this);
        Progress("switch file 2.........\n");
        const int nResult = OpenLogFile();
        Progress("switch file 3.........\n");
        if (nResult != 0) {
            Trace("failed to open new log when switch log file!\n");
        }
        Progress("switch file 4.........\n");
    }
    Progress("switch file 5.........\n");
    if (m_strFileName == strPrevious) {
        return 0;  // midnight came between the opening and main's first look at the date
    }
    HistoryFiles files;
    const int nError = ScanHistory(files);
    if (nError != 0) {
        return nError;
    }
    Progress("switch file 10.........\n");
    RemoveOldest(files);
    return MoveToHistory(strPrevious);
}
