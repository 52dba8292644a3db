#include "core/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "core/Lock.h"
#include "core/SystemPath.h"

namespace {

CLock& TraceLock() {
    // Never destroyed: a worker may fail while a normal exit takes the statics down.
    static CLock* const pLock = new CLock;
    return *pLock;
}

const char* BaseName(const char* szPath) {
    const char* szSlash = std::strrchr(szPath, '/');
    return szSlash == nullptr ? szPath : szSlash + 1;
}

void WriteRecord(const char* szText, const char* szFunction, const char* szFile, int nLine) {
    std::FILE* pFile = std::fopen(SystemPath("/var/log/logs.txt").c_str(), "we");
    if (pFile == nullptr) {
        return;
    }
    const std::time_t tNow = std::time(nullptr);
    std::tm tmNow{};
    localtime_r(&tNow, &tmNow);
    std::fprintf(pFile, "[%04d-%02d-%02d %02d:%02d:%02d] %s %d %s\n%s", tmNow.tm_year + 1900,
                 tmNow.tm_mon + 1, tmNow.tm_mday, tmNow.tm_hour, tmNow.tm_min, tmNow.tm_sec, szFile,
                 nLine, szFunction, szText);
    std::fclose(pFile);
}

}  // namespace

void Trace(const char* szText, const char* szFunction, const char* szFile, int nLine) {
    const int nSavedErrno = errno;
    {
        const CLockGuard guard(TraceLock());
        WriteRecord(szText, szFunction, BaseName(szFile), nLine);
    }
    errno = nSavedErrno;
}
