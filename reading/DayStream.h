// Streaming reader of a day's file (docs/protocols.md, "Day's file"): any record by its number, in
// memory that does not depend on the file, also while the service goes on writing. It reads a
// damaged file as far as it goes and can say what is wrong with it.
//
// Records are numbered 1, 2, ... in the order in which the service wrote them; the ring keeps the
// newest 10238.
//
// Threads: no lock inside; an object belongs to the function that made it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "logstore/LogRecord.h"
#include "support/UniqueFd.h"

// Device and inode: what tells a file from every other one of the machine, whatever its path.
using FileId = std::pair<dev_t, ino_t>;

enum class ESlot {
    kRecord,
    kNoRecord,     // no record's magic: never written, or damaged
    kMissing,      // behind the end of the file
    kOverwritten,  // by a newer record, since the file was opened or refreshed
};

class CDayStream {
public:
    // Opens the file. Throws std::runtime_error, naming path and reason, when it cannot be opened
    // or is no regular file; a file without a right header is open all the same.
    explicit CDayStream(const std::string& strPath);

    const std::string& Path() const { return m_strPath; }
    FileId Id() const { return m_Id; }
    bool HasHeader() const { return m_eHeader == EHeader::kRight; }
    const LogFileHeader& Header() const { return m_Header; }  // zeros without a right one

    // Numbers of the oldest record and of the one that comes next, as of the opening or the last
    // Refresh. Without a right header all slots of the file count, in the order of the slots.
    std::uint64_t Begin() const;
    std::uint64_t End() const { return m_nEnd; }

    // Takes notice of what was written meanwhile.
    void Refresh();

    // Slot of the record of that number, 1 to 10238.
    static std::uint32_t SlotOf(std::uint64_t nNumber);

    // Gives the slot of record nNumber, Begin() to End() - 1, as it is in the file: pRecord is
    // valid until the next call, and set for Record and NoRecord only.
    ESlot Read(std::uint64_t nNumber, const LogRecord*& pRecord);

    // What is wrong with the file as far as it was read, a sentence each; none: nothing.
    std::vector<std::string> Damage() const;

private:
    enum class EHeader { kRight, kWrongMagic, kShort };

    void LoadHeader();
    void LoadBlock(std::uint32_t nSlot);
    std::uint64_t Bytes() const;
    std::string CutTail() const;
    std::string BadSlots() const;

    std::string m_strPath;
    CUniqueFd m_File;
    FileId m_Id;
    EHeader m_eHeader = EHeader::kShort;
    LogFileHeader m_Header{};
    std::uint64_t m_nEnd = 1;        // as of the opening or the last Refresh
    std::uint64_t m_nNewest = 0;     // number of the newest record, as of the last look
    std::vector<LogRecord> m_Block;  // slots from m_nBlockSlot on
    std::uint32_t m_nBlockSlot = 0;  // 0: no block is loaded
    std::size_t m_nBlockRecords = 0;
    std::vector<bool> m_Bad;  // by slot: read, and without a record
    int m_nReadError = 0;     // errno of the last read that failed
};
