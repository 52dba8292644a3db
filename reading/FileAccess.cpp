#include "reading/FileAccess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

bool IsForbidden(const std::string& strPath, int nMode) {
    return faccessat(AT_FDCWD, strPath.c_str(), nMode, AT_EACCESS) != 0 && errno == EACCES;
}

// The first directory on the way that may not be passed, else the file.
std::string ClosedPart(const std::string& strPath) {
    for (std::size_t nEnd = strPath.find('/', 1); nEnd != std::string::npos;
         nEnd = strPath.find('/', nEnd + 1)) {
        if (IsForbidden(strPath.substr(0, nEnd), X_OK)) {
            return strPath.substr(0, nEnd);
        }
    }
    return strPath;
}

}  // namespace

std::string WhyForbidden(const std::string& strPath) {
    constexpr mode_t kGroupReads = S_IRGRP;
    constexpr mode_t kGroupPasses = S_IXGRP;
    if (!IsForbidden(strPath, R_OK)) {
        return {};
    }
    const std::string strClosed = ClosedPart(strPath);
    struct stat status {};
    const group* const pGroup =
        stat(strClosed.c_str(), &status) == 0 ? getgrgid(status.st_gid) : nullptr;
    const mode_t wanted = S_ISDIR(status.st_mode) ? kGroupPasses : kGroupReads;
    if (pGroup == nullptr || status.st_gid == 0 || (status.st_mode & wanted) == 0) {
        return "may not be read by you: run this as root";
    }
    return fmt::format(
        "may not be read by you: join the group {0} (as root: usermod -aG {0} NAME), then log in "
        "anew",
        pGroup->gr_name);
}
