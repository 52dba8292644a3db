// An open directory that closes itself.
//
// Threads: an object belongs to the function that made it.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

struct DirectoryCloser {
    void operator()(DIR* pDirectory) const { closedir(pDirectory); }
};

// Opens a directory; null, and errno says why, when that fails.
inline std::unique_ptr<DIR, DirectoryCloser> OpenDirectory(const std::string& strPath) {
    return std::unique_ptr<DIR, DirectoryCloser>(opendir(strPath.c_str()));
}
