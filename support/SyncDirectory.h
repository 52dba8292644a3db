// Making a new name in a directory last.
//
// Threads: any.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "support/UniqueFd.h"

// Has the names of the directory strPath flushed to the disk. A failure changes nothing that a
// caller could undo; file systems that cannot do it exist.
inline void SyncDirectory(const std::string& strPath) {
    const CUniqueFd directory(open(strPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.IsOpen()) {
        fsync(directory.Get());
    }
}
