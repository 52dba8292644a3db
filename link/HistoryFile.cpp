#include "link/HistoryFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

#include "core/Progress.h"
#include "core/ServiceFiles.h"
#include "support/SystemPath.h"
#include "support/UniqueFd.h"

namespace {

bool IsPlainName(const std::string& strName) {
    return !strName.empty() && strName != "." && strName != ".." &&
           strName.find('/') == std::string::npos;
}

// What is no regular file is looked at before it is opened, since opening a device or a pipe can
// have effects of its own, and after, since it may have been replaced in between.
int OpenRegular(const std::string& strPath) {
    struct stat status {};
    if (fstatat(AT_FDCWD, strPath.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return -1;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = ENOENT;
        return -1;
    }
    CUniqueFd file(open(strPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const bool bReplaced = file.IsOpen()
                               ? fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)
                               : errno == ELOOP || errno == ENXIO;  // now a link, now a socket
    if (bReplaced) {
        file.Reset();
        errno = ENOENT;
    }
    return file.Release();
}

}  // namespace

int OpenHistoryFile(const std::string& strName) {
    const std::string strHistory = SystemPath(kHistoryDirectory) + strName;
    const std::string strToday = SystemPath(kLogDirectory) + strName;
    Progress("szFileName1=%s\n", strHistory.c_str());
    Progress("szFileName2=%s\n", strToday.c_str());
    if (!IsPlainName(strName)) {
        errno = ENOENT;
        return -1;
    }
    const int nFile = OpenRegular(strHistory);
    return nFile == -1 && errno == ENOENT ? OpenRegular(strToday) : nFile;
}

std::int32_t FileSize(int nFile) {
    struct stat status {};
    if (fstat(nFile, &status) != 0 || status.st_size > std::numeric_limits<std::int32_t>::max()) {
        return -1;
    }
    return static_cast<std::int32_t>(status.st_size);
}
