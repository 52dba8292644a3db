#include "support/MoveFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "support/SyncDirectory.h"
#include "support/UniqueFd.h"

namespace {

bool WriteAll(int nFile, const char* pBytes, std::size_t nLen) {
    while (nLen > 0) {
        const ssize_t nWritten = write(nFile, pBytes, nLen);
        if (nWritten < 0 && errno != EINTR) {
            return false;
        }
        const std::size_t nDone = nWritten > 0 ? static_cast<std::size_t>(nWritten) : 0;
        pBytes += nDone;
        nLen -= nDone;
    }
    return true;
}

bool CopyBytes(int nFrom, int nTo) {
    std::vector<char> bytes(65536);
    for (;;) {
        const ssize_t nRead = read(nFrom, bytes.data(), bytes.size());
        if (nRead == 0) {
            return true;
        }
        if (nRead < 0 && errno != EINTR) {
            return false;
        }
        if (nRead > 0 && !WriteAll(nTo, bytes.data(), static_cast<std::size_t>(nRead))) {
            return false;
        }
    }
}

// Who may not give files away keeps the copy as its own.
void TakeOwner(int nFile, const struct stat& from) {
    struct stat now {};
    if (fstat(nFile, &now) == 0 && (now.st_uid != from.st_uid || now.st_gid != from.st_gid)) {
        [[maybe_unused]] const int nResult = fchown(nFile, from.st_uid, from.st_gid);
    }
}

// What stands in place of a day's file leaves with it, so that the next has its place.
bool CopyLink(const std::string& strFrom, const std::string& strPart) {
    char szTarget[4096];
    const ssize_t nLen = readlink(strFrom.c_str(), szTarget, sizeof(szTarget) - 1);
    if (nLen < 0) {
        return false;
    }
    szTarget[nLen] = '\0';
    return symlink(szTarget, strPart.c_str()) == 0;
}

bool CopyTo(const std::string& strFrom, const std::string& strPart) {
    unlink(strPart.c_str());
    if (CopyLink(strFrom, strPart)) {
        return true;
    }
    const CUniqueFd from(open(strFrom.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!from.IsOpen() || fstat(from.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    const CUniqueFd part(open(strPart.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!part.IsOpen() || !CopyBytes(from.Get(), part.Get())) {
        return false;
    }
    TakeOwner(part.Get(), status);
    const timespec tsTimes[] = {status.st_atim, status.st_mtim};
    return fchmod(part.Get(), status.st_mode & 07777) == 0 && futimens(part.Get(), tsTimes) == 0 &&
           fsync(part.Get()) == 0;
}

std::string DirectoryOf(const std::string& strPath) {
    return strPath.substr(0, strPath.rfind('/') + 1);
}

}  // namespace

bool MoveFile(const std::string& strFrom, const std::string& strTo, const std::string& strPart) {
    if (std::rename(strFrom.c_str(), strTo.c_str()) == 0) {
        return true;
    }
    if (errno != EXDEV) {
        return false;
    }
    if (!CopyTo(strFrom, strPart) || std::rename(strPart.c_str(), strTo.c_str()) != 0) {
        unlink(strPart.c_str());
        return false;
    }
    SyncDirectory(DirectoryOf(strTo));
    unlink(strFrom.c_str());  // one that stays is removed at the next start
    return true;
}
