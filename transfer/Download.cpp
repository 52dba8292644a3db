#include "transfer/Download.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>

#include "core/ServiceFiles.h"
#include "link/UploadFrame.h"
#include "support/Date.h"

namespace fs = std::filesystem;

namespace {

constexpr int kNoonHour = 12;  // a day back from noon is the day before, summer time or not

std::string NameOfDay(const std::tm& tmDay) {
    return DayFileName(tmDay.tm_year + 1900, tmDay.tm_mon + 1, tmDay.tm_mday);
}

// Whether the day that strName is the file of has ended at tWhen.
bool HasDayEnded(const std::string& strName, std::time_t tWhen) {
    return strName < NameOfDay(LocalTime(tWhen));
}

// Which parts this process is at. A part that still has no byte is no file that one could lock.
class CPartsUnderWay {
public:
    // False: another download has it.
    bool Enter(const std::string& strPart) {
        const std::lock_guard lock(m_Mutex);
        return m_Parts.insert(strPart).second;
    }
    void Leave(const std::string& strPart) {
        const std::lock_guard lock(m_Mutex);
        m_Parts.erase(strPart);
    }

    static CPartsUnderWay& Instance() {
        static CPartsUnderWay parts;
        return parts;
    }

private:
    std::mutex m_Mutex;
    std::set<std::string> m_Parts;
};

}  // namespace

std::vector<std::string> DayNames(int nDays, std::time_t tNow) {
    std::vector<std::string> names;
    for (int nBack = nDays - 1; nBack >= 0; --nBack) {
        std::tm tmDay = LocalTime(tNow);
        tmDay.tm_hour = kNoonHour;
        tmDay.tm_mday -= nBack;
        tmDay.tm_isdst = -1;
        std::mktime(&tmDay);
        names.push_back(NameOfDay(tmDay));
    }
    return names;
}

bool IsPlainFileName(const std::string& strName) {
    return !strName.empty() && strName != "." && strName != ".." &&
           strName.find('/') == std::string::npos && strName.find('\0') == std::string::npos &&
           strName.size() < kGetHlogNameBytes;
}

bool CDownload::IsHere(const std::string& strFolder, const std::string& strName) {
    struct stat file {};
    return IsDayFileName(strName) && stat((fs::path(strFolder) / strName).c_str(), &file) == 0 &&
           S_ISREG(file.st_mode) && HasDayEnded(strName, file.st_mtime);
}

CDownload::CDownload(const std::string& strFolder, const std::string& strName)
    : m_strFolder(strFolder), m_strName(strName), m_tBegin(std::time(nullptr)) {
    const bool bChanging = IsDayFileName(strName) && !HasDayEnded(strName, m_tBegin);
    m_strPart = fs::path(strFolder) / (strName + (bChanging ? ".new" : ".part"));
    if (!CPartsUnderWay::Instance().Enter(m_strPart)) {
        throw std::runtime_error(fmt::format("{}: another session fetches it", m_strPart));
    }
    try {
        if (OpenPart(0) && bChanging) {
            Restart();
        }
    } catch (...) {
        CPartsUnderWay::Instance().Leave(m_strPart);
        throw;
    }
}

CDownload::~CDownload() {
    if (m_File.IsOpen() && m_nDone == 0) {
        unlink(m_strPart.c_str());
    }
    CPartsUnderWay::Instance().Leave(m_strPart);
}

std::string CDownload::Path() const {
    return fs::path(m_strFolder) / m_strName;
}

// Whatever stands there under the part's name: a link is not followed, a pipe not waited for, and
// nothing is written that is no file of this name alone.
bool CDownload::OpenPart(int nFlags) {
    m_File.Reset(open(m_strPart.c_str(),
                      O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | nFlags,
                      0666));  // the umask says who may read
    if (!m_File.IsOpen()) {
        if (errno == ENOENT && (nFlags & O_CREAT) == 0) {
            return false;
        }
        if (errno == ENXIO) {
            throw std::runtime_error(fmt::format("{}: is no regular file", m_strPart));
        }
        Fail(m_strPart);
    }
    try {
        CheckPart();
    } catch (...) {
        m_File.Reset();
        throw;
    }
    return true;
}

void CDownload::CheckPart() {
    struct stat opened {};
    struct stat named {};
    if (fstat(m_File.Get(), &opened) != 0) {
        Fail(m_strPart);
    }
    if (!S_ISREG(opened.st_mode)) {
        throw std::runtime_error(fmt::format("{}: is no regular file", m_strPart));
    }
    if (opened.st_nlink > 1) {
        throw std::runtime_error(fmt::format("{}: has another name, too", m_strPart));
    }
    // Another download may have given the file its final name between the opening and the lock.
    if (flock(m_File.Get(), LOCK_EX | LOCK_NB) != 0 || lstat(m_strPart.c_str(), &named) != 0 ||
        named.st_ino != opened.st_ino || named.st_dev != opened.st_dev) {
        throw std::runtime_error(fmt::format("{}: another session fetches it", m_strPart));
    }
    m_nStart = m_nDone = static_cast<std::uint64_t>(named.st_size);
}

void CDownload::MakePart() {
    std::error_code error;
    fs::create_directories(m_strFolder, error);
    if (error) {
        throw std::runtime_error(fmt::format("{}: {}", m_strFolder, error.message()));
    }
    OpenPart(O_CREAT);
    if (m_nStart != 0) {  // a download of another program was faster
        m_File.Reset();
        throw std::runtime_error(fmt::format("{}: another session fetches it", m_strPart));
    }
}

void CDownload::Restart() {
    if (m_File.IsOpen() && ftruncate(m_File.Get(), 0) != 0) {
        Fail(m_strPart);
    }
    m_nStart = m_nDone = 0;
}

void CDownload::Begin(std::uint64_t nSize) {
    m_nSize = nSize;
}

void CDownload::Write(const std::uint8_t* pBytes, std::size_t nLen) {
    if (!m_File.IsOpen() && nLen > 0) {
        MakePart();
    }
    while (nLen > 0) {
        const ssize_t nWritten = write(m_File.Get(), pBytes, nLen);
        if (nWritten < 0 && errno != EINTR) {
            Fail(m_strPart);
        }
        const auto nDone = static_cast<std::size_t>(std::max<ssize_t>(nWritten, 0));
        pBytes += nDone;
        nLen -= nDone;
        m_nDone += nDone;
    }
}

// The file's time tells IsHere later on whether the day had ended when the file was asked for.
void CDownload::Finish() {
    const std::string strPath = Path();
    const timespec times[] = {{0, UTIME_OMIT}, {m_tBegin, 0}};
    if (futimens(m_File.Get(), times) != 0 || rename(m_strPart.c_str(), strPath.c_str()) != 0) {
        Fail(strPath);
    }
    m_File.Reset();
}

void CDownload::Fail(const std::string& strPath) const {
    throw std::runtime_error(fmt::format("{}: {}", strPath, std::strerror(errno)));
}
