#include "support/ReplaceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "support/UniqueFd.h"

namespace {

namespace fs = std::filesystem;

// Gives the file the owner of the old one. Where that is the owner anyway, nothing is asked for: a
// process that is fenced in may not be allowed to ask.
bool TakeOwner(int nFile, const struct stat& old) {
    struct stat now {};
    if (fstat(nFile, &now) == 0 && now.st_uid == old.st_uid && now.st_gid == old.st_gid) {
        return true;
    }
    return fchown(nFile, old.st_uid, old.st_gid) == 0;
}

bool WriteNew(const fs::path& pathNew, const struct stat& old,
              const std::function<bool(const std::string&)>& fnWrite) {
    // Nobody else may read it before it has the old one's mode.
    const CUniqueFd file(open(pathNew.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return file.IsOpen() && fnWrite(pathNew) && TakeOwner(file.Get(), old) &&
           fchmod(file.Get(), old.st_mode & 07777) == 0 && fsync(file.Get()) == 0;
}

// For a file that is a mount of its own and cannot be renamed over.
bool WriteInPlace(const fs::path& pathOld, const std::function<bool(const std::string&)>& fnWrite) {
    const CUniqueFd file(open(pathOld.c_str(), O_WRONLY | O_CLOEXEC));
    return file.IsOpen() && fnWrite(pathOld) && fsync(file.Get()) == 0;
}

// A failure changes nothing that a caller could undo; file systems that cannot do it exist.
void SyncDirectory(const fs::path& path) {
    const CUniqueFd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) {
        fsync(directory.Get());
    }
}

}  // namespace

bool ReplaceFile(const std::string& strPath,
                 const std::function<bool(const std::string&)>& fnWrite) {
    std::error_code error;
    const fs::path pathOld = fs::canonical(strPath, error);
    struct stat old {};
    if (error || stat(pathOld.c_str(), &old) != 0) {
        return false;
    }
    const fs::path pathNew = pathOld.string() + ".new";
    unlink(pathNew.c_str());  // of a replacement that a power failure ended
    if (!WriteNew(pathNew, old, fnWrite)) {
        unlink(pathNew.c_str());
        return false;
    }
    if (std::rename(pathNew.c_str(), pathOld.c_str()) != 0) {
        const bool bMount = errno == EBUSY || errno == EXDEV;
        unlink(pathNew.c_str());
        return bMount && WriteInPlace(pathOld, fnWrite);
    }
    SyncDirectory(pathOld.parent_path());
    return true;
}
