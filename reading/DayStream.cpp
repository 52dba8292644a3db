#include "reading/DayStream.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "reading/Counted.h"

namespace {

constexpr std::uint32_t kBlockSlots = 218;  // just under 64 KiB

// Reads up to nLen bytes, less only at the end of the file and on an error. Their number.
std::size_t ReadAt(int nFile, void* pData, std::size_t nLen, off_t nOffset, int& nError) {
    std::size_t nDone = 0;
    while (nDone < nLen) {
        const ssize_t nBytes = pread(nFile, static_cast<char*>(pData) + nDone, nLen - nDone,
                                     nOffset + static_cast<off_t>(nDone));
        if (nBytes < 0 && errno == EINTR) {
            continue;
        }
        if (nBytes < 0) {
            nError = errno;
        }
        if (nBytes <= 0) {
            break;
        }
        nDone += static_cast<std::size_t>(nBytes);
    }
    return nDone;
}

// The counter skips the multiples of the file's units.
std::uint64_t WritesOf(std::uint32_t dwCount) {
    return dwCount - dwCount / kLogFileUnits;
}

std::runtime_error OpenError(const std::string& strPath, const char* szReason) {
    return std::runtime_error(fmt::format("{}: {}", strPath, szReason));
}

}  // namespace

CDayStream::CDayStream(const std::string& strPath)
    : m_strPath(strPath),
      // O_NONBLOCK: a named pipe must not hold the program
      m_File(open(strPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)),
      m_Block(kBlockSlots),
      m_Bad(kLogFileSlots + 1) {
    struct stat status {};
    if (!m_File.IsOpen() || fstat(m_File.Get(), &status) != 0) {
        throw OpenError(strPath, std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw OpenError(strPath, "is no regular file");
    }
    m_Id = {status.st_dev, status.st_ino};
    Refresh();
}

void CDayStream::Refresh() {
    LoadHeader();
    m_nEnd = m_nNewest + 1;
    m_nBlockSlot = 0;
}

void CDayStream::LoadHeader() {
    LogFileHeader header{};
    if (ReadAt(m_File.Get(), &header, sizeof(header), 0, m_nReadError) != sizeof(header)) {
        return;  // still as it was: a file that is just being made, for instance
    }
    if (header.dwMagic == LOG_RECORD_MAGIC) {
        m_eHeader = EHeader::kRight;
        m_Header = header;
        m_nNewest = WritesOf(header.dwCount);
        return;
    }
    m_eHeader = EHeader::kWrongMagic;
    m_Header = {};
    m_nNewest = std::min<std::uint64_t>(Bytes() / kRecordBytes - 1, kLogFileSlots);
}

std::uint64_t CDayStream::Bytes() const {
    struct stat status {};
    return fstat(m_File.Get(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

std::uint64_t CDayStream::Begin() const {
    return m_nEnd > kLogFileSlots ? m_nEnd - kLogFileSlots : 1;
}

std::uint32_t CDayStream::SlotOf(std::uint64_t nNumber) {
    return static_cast<std::uint32_t>((nNumber - 1) % kLogFileSlots) + 1;
}

void CDayStream::LoadBlock(std::uint32_t nSlot) {
    m_nBlockSlot = (nSlot - 1) / kBlockSlots * kBlockSlots + 1;
    const std::size_t nSlots = std::min(kBlockSlots, kLogFileUnits - m_nBlockSlot);
    m_nBlockRecords = ReadAt(m_File.Get(), m_Block.data(), nSlots * kRecordBytes,
                             static_cast<off_t>(m_nBlockSlot) * off_t{kRecordBytes}, m_nReadError) /
                      kRecordBytes;
    if (m_eHeader == EHeader::kRight) {
        LoadHeader();  // after the slots: tells which of them were overwritten by then
    }
}

ESlot CDayStream::Read(std::uint64_t nNumber, const LogRecord*& pRecord) {
    const std::uint32_t nSlot = SlotOf(nNumber);
    if (m_nBlockSlot == 0 || nSlot < m_nBlockSlot || nSlot >= m_nBlockSlot + kBlockSlots) {
        LoadBlock(nSlot);
    }
    // The service puts records into their slots before it counts them, so while it writes some more
    // slots may be new.
    const std::uint64_t nWritten = m_nNewest + (m_nNewest + 1 != m_nEnd ? kMostAheadOfHeader : 0);
    if (nNumber + kLogFileSlots <= nWritten) {
        return ESlot::kOverwritten;
    }
    if (nSlot - m_nBlockSlot >= m_nBlockRecords) {
        return ESlot::kMissing;
    }
    pRecord = &m_Block[nSlot - m_nBlockSlot];
    if (pRecord->dwMagic != LOG_RECORD_MAGIC) {
        m_Bad[nSlot] = true;
        return ESlot::kNoRecord;
    }
    return ESlot::kRecord;
}

std::vector<std::string> CDayStream::Damage() const {
    const std::uint64_t nBytes = Bytes();
    if (m_eHeader == EHeader::kShort) {
        return {fmt::format("the header is cut short, {} of {} bytes", nBytes, kRecordBytes)};
    }
    std::vector<std::string> damage;
    if (m_eHeader == EHeader::kWrongMagic) {
        damage.emplace_back(
            "the header has no magic: the order is not known, records come as they stand");
    }
    if (m_nReadError != 0) {
        damage.push_back(fmt::format("cannot be read whole: {}", std::strerror(m_nReadError)));
    }
    const std::uint64_t nHeld = nBytes / kRecordBytes - (nBytes < kRecordBytes ? 0 : 1);
    const std::uint64_t nWanted = m_nEnd - Begin();
    if (nHeld < nWanted) {
        damage.push_back(
            fmt::format("{} should be there, the file ends after {}",
                        Counted(nWanted, "record", "records"), nHeld));
    }
    for (const std::string& strText : {CutTail(), BadSlots()}) {
        if (!strText.empty()) {
            damage.push_back(strText);
        }
    }
    return damage;
}

std::string CDayStream::CutTail() const {
    const std::uint64_t nBytes = Bytes();
    if (nBytes % kRecordBytes == 0) {
        return {};
    }
    // A record that is just being written may end at the edge of a page for a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (Bytes() != nBytes) {
        return {};
    }
    return fmt::format("the last slot is cut short, {} of {} bytes", nBytes % kRecordBytes,
                       kRecordBytes);
}

std::string CDayStream::BadSlots() const {
    constexpr int kMostRuns = 10;  // of neighbouring slots that are listed
    std::string strList;
    int nRuns = 0;
    auto itBad = std::find(m_Bad.begin(), m_Bad.end(), true);
    for (; itBad != m_Bad.end(); ++nRuns) {
        const auto itEnd = std::find(itBad, m_Bad.end(), false);
        if (nRuns < kMostRuns) {
            const auto nFirst = itBad - m_Bad.begin();
            const auto nLast = itEnd - m_Bad.begin() - 1;
            strList += strList.empty() ? "" : ", ";
            strList += nFirst == nLast ? fmt::format("{}", nFirst)
                                       : fmt::format("{} to {}", nFirst, nLast);
        }
        itBad = std::find(itEnd, m_Bad.end(), true);
    }
    if (nRuns > kMostRuns) {
        strList += ", ...";
    }
    const auto nBad = static_cast<std::uint64_t>(std::count(m_Bad.begin(), m_Bad.end(), true));
    return nBad == 0
               ? std::string()
               : fmt::format("{} without a record: {}", Counted(nBad, "slot", "slots"), strList);
}
