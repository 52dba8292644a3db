#include "core/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

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

// Puts the record in place of what the file held. The file is cut to its new length at the end and
// not emptied first: some file systems flush a file that was emptied to the disk when it is closed,
// which takes milliseconds, and the intake traces each invalid datagram.
void ReplaceContent(const char* szRecord, std::size_t nLen) {
    const CUniqueFd file(open(SystemPath("/var/log/logs.txt").c_str(),
                              O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
    if (!file.IsOpen()) {
        return;
    }
    const ssize_t nWritten = pwrite(file.Get(), szRecord, nLen, 0);
    // What could not be written is gone, as what stood there before; there is nobody to tell.
    [[maybe_unused]] const int nResult = ftruncate(file.Get(), std::max<ssize_t>(nWritten, 0));
}

}  // namespace

void Trace(const char* szText, const char* szFunction, const char* szFile, int nLine) {
    const int nSavedErrno = errno;
    {
        const CLockGuard guard(TraceLock());
        char szRecord[kMaxRecordBytes];
        ReplaceContent(szRecord,
                       FormatRecord(szRecord, szText, szFunction, BaseName(szFile), nLine));
    }
    errno = nSavedErrno;
}

void EndTraces() {
    TraceLock().Lock();
}
