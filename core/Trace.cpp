#include "core/Trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "core/Lock.h"
#include "support/Date.h"
#include "support/SystemPath.h"
#include "support/UniqueFd.h"

namespace {

constexpr std::size_t kMaxRecordBytes = 1024;  // far more than any text of the service needs

CLock& TraceLock() {
    // Never destroyed: a worker may fail while a normal exit takes the statics down.
    static CLock* const pLock = new CLock;
    return *pLock;
}

const char* BaseName(const char* szPath) {
    const char* szSlash = std::strrchr(szPath, '/');
    return szSlash == nullptr ? szPath : szSlash + 1;
}

// Fills szRecord and returns its length.
std::size_t FormatRecord(char (&szRecord)[kMaxRecordBytes], const char* szText,
                         const char* szFunction, const char* szFile, int nLine) {
    const std::tm tmNow = LocalTime(std::time(nullptr));
    const int nWanted =
        std::snprintf(szRecord, sizeof(szRecord), "[%04d-%02d-%02d %02d:%02d:%02d] %s %d %s\n%s",
                      tmNow.tm_year + 1900, tmNow.tm_mon + 1, tmNow.tm_mday, tmNow.tm_hour,
                      tmNow.tm_min, tmNow.tm_sec, szFile, nLine, szFunction, szText);
    return std::min(static_cast<std::size_t>(std::max(nWanted, 0)), sizeof(szRecord) - 1);
}

// Whole or not at all.
bool WriteRecord(int nFile, const char* szRecord, std::size_t nLen) {
    return write(nFile, szRecord, nLen) == static_cast<ssize_t>(nLen);
}

// The new file takes the name at once, so whoever opens it finds one record, and whoever follows it
// by its name finds a new file. They change places and the old one goes then: a rename over it
// would have some file systems begin to write the new one to the disk, and the intake traces each
// invalid datagram.
bool PutInPlace(const char* szNew, const char* szPath) {
    if (renameat2(AT_FDCWD, szNew, AT_FDCWD, szPath, RENAME_EXCHANGE) == 0) {
        unlink(szNew);
        return true;
    }
    return std::rename(szNew, szPath) == 0;
}

// A new file with the rights of the old one, if there is one. -1: there can be none.
int MakeNew(const std::string& strNew, const struct stat* pOld) {
    const int nFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    unlink(strNew.c_str());  // of a process that was killed
    CUniqueFd file(open(strNew.c_str(), nFlags, pOld != nullptr ? 0600 : 0666));
    if (!file.IsOpen()) {
        return -1;
    }
    struct stat made {};
    const bool bSame =
        pOld == nullptr ||
        (fstat(file.Get(), &made) == 0 && made.st_uid == pOld->st_uid &&
         made.st_gid == pOld->st_gid && fchmod(file.Get(), pOld->st_mode & 0777) == 0);
    if (!bSame) {
        unlink(strNew.c_str());
        return -1;
    }
    return file.Release();
}

// False: nothing has changed. The rights of the old file stay, so what cannot be given them is
// written in place.
bool ReplaceByNew(const std::string& strPath, const struct stat* pOld, const char* szRecord,
                  std::size_t nLen) {
    const std::string strNew = strPath + ".new";
    const CUniqueFd file(MakeNew(strNew, pOld));
    if (!file.IsOpen()) {
        return false;
    }
    if (!WriteRecord(file.Get(), szRecord, nLen) || !PutInPlace(strNew.c_str(), strPath.c_str())) {
        unlink(strNew.c_str());
        return false;
    }
    return true;
}

// What stands behind the name gets the record: a pipe with a reader, a terminal, a file that is a
// mount of its own or in a directory where nothing can be made. A link that somebody else has made
// is not followed: it could lead to any file that this process may write.
void WriteBehind(const std::string& strPath, const char* szRecord, std::size_t nLen) {
    struct stat link {};
    const bool bLink = lstat(strPath.c_str(), &link) == 0 && S_ISLNK(link.st_mode);
    if (bLink && link.st_uid != 0 && link.st_uid != geteuid()) {
        return;
    }
    const CUniqueFd file(open(
        strPath.c_str(),
        O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (bLink ? 0 : O_NOFOLLOW),
        0666));
    if (file.IsOpen()) {
        // What could not be written is gone, as what stood there before; there is nobody to tell.
        static_cast<void>(WriteRecord(file.Get(), szRecord, nLen));
    }
}

void ReplaceContent(const char* szRecord, std::size_t nLen) {
    const std::string strPath = SystemPath("/var/log/logs.txt");
    struct stat old {};
    const bool bOld = lstat(strPath.c_str(), &old) == 0;
    const bool bReplaced = (!bOld || S_ISREG(old.st_mode)) &&
                           ReplaceByNew(strPath, bOld ? &old : nullptr, szRecord, nLen);
    if (!bReplaced) {
        WriteBehind(strPath, szRecord, nLen);
    }
}

}  // namespace

void Trace(const char* szText, const char* szFunction, const char* szFile, int nLine) {
    const int nSavedErrno = errno;
    {
        const CLockGuard guard(TraceLock());
        char szRecord[kMaxRecordBytes];
        const std::size_t nLen =
            FormatRecord(szRecord, szText, szFunction, BaseName(szFile), nLine);
        try {
            ReplaceContent(szRecord, nLen);
        } catch (const std::bad_alloc&) {
            // It may be this that the record tells of.
            errno = ENOMEM;
        }
    }
    errno = nSavedErrno;
}

void EndTraces() {
    TraceLock().Lock();
}
