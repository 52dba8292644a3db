#include "reading/DayDirectory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "support/Directory.h"
#include "support/SystemPath.h"

namespace {

FileId IdOf(const std::string& strPath) {
    struct stat status {};
    return stat(strPath.c_str(), &status) == 0 ? FileId{status.st_dev, status.st_ino} : FileId{};
}

std::vector<DayEntry> ListOrComplain(const char* szDirectory, CComplaints& complaints) {
    try {
        return DayFilesIn(szDirectory);
    } catch (const std::runtime_error& error) {
        complaints.Say(error.what());
        return {};
    }
}

}  // namespace

std::string FileName(const std::string& strPath) {
    return strPath.substr(strPath.rfind('/') + 1);
}

std::vector<DayEntry> DayFilesIn(const char* szDirectory) {
    const std::string strDirectory = SystemPath(szDirectory);
    const auto pDirectory = OpenDirectory(strDirectory);
    if (pDirectory == nullptr) {
        throw std::runtime_error(strDirectory + ": " + std::strerror(errno));
    }
    std::vector<DayEntry> files;
    while (const dirent* pEntry = readdir(pDirectory.get())) {
        if (IsDayFileName(pEntry->d_name)) {
            const std::string strPath = strDirectory + pEntry->d_name;
            files.push_back({strPath, IdOf(strPath)});
        }
    }
    std::sort(files.begin(), files.end(), [](const DayEntry& first, const DayEntry& second) {
        return first.strPath < second.strPath;
    });
    return files;
}

std::vector<DayEntry> AllDayFiles(CComplaints& complaints) {
    // Today's directory first: a file that moves in between is listed twice, not left out.
    std::vector<DayEntry> today = ListOrComplain(kLogDirectory, complaints);
    std::vector<DayEntry> files = ListOrComplain(kHistoryDirectory, complaints);
    std::erase_if(today, [&files](const DayEntry& entry) {
        return std::any_of(files.begin(), files.end(), [&entry](const DayEntry& moved) {
            return moved.id == entry.id ||
                   (entry.id == FileId{} && FileName(moved.strPath) == FileName(entry.strPath));
        });
    });
    files.insert(files.end(), today.begin(), today.end());
    return files;
}
