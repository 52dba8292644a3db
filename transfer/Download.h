// A file on its way from an appliance into a folder. Until it is complete its bytes are in
// NAME.part, so that what was received is never fetched again, not even after this program was
// killed. A day that has not ended is different: its file changes in place all the time, so it is
// always fetched anew, through NAME.new, and what is found of it is never trusted.
//
// Threads: an object belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "support/UniqueFd.h"

// The names of the day's files of the nDays days that end with the local day of tNow, oldest first.
std::vector<std::string> DayNames(int nDays, std::time_t tNow);

// Whether strName is one plain file name that a request can carry.
bool IsPlainFileName(const std::string& strName);

class CDownload {
public:
    // Whether the folder has the whole file of a day that had ended when it was fetched: nothing of
    // it can be missing.
    static bool IsHere(const std::string& strFolder, const std::string& strName);

    // Opens what is held of the file, if anything is; strName is a plain file name. Throws
    // std::runtime_error, naming path and reason; one is that another download has the file,
    // another that what is there is no regular file with one name.
    CDownload(const std::string& strFolder, const std::string& strName);
    ~CDownload();  // what is incomplete stays for the next time; nothing leaves no file
    CDownload(const CDownload&) = delete;
    CDownload& operator=(const CDownload&) = delete;

    const std::string& Name() const { return m_strName; }
    std::string Path() const;                         // once it is finished
    std::uint64_t Start() const { return m_nStart; }  // where this download goes on from
    std::uint64_t Done() const { return m_nDone; }    // bytes held, those from Start() on included
    std::uint64_t Size() const { return m_nSize; }    // of the whole; 0 before Begin
    std::uint64_t Missing() const { return m_nSize - m_nDone; }

    void Restart();                   // drops what is held. Throws as above
    void Begin(std::uint64_t nSize);  // nSize: of the whole file, above Start()

    // Appends nLen bytes, at most Missing(). The first one makes folder and file. Throws as above;
    // what was written until then is held.
    void Write(const std::uint8_t* pBytes, std::size_t nLen);

    // Once nothing is missing: gives the file its name. Throws as above.
    void Finish();

private:
    [[noreturn]] void Fail(const std::string& strPath) const;  // with errno's reason
    bool OpenPart(int nFlags);                                 // false: there is none
    void CheckPart();
    void MakePart();

    std::string m_strFolder;
    std::string m_strName;
    std::string m_strPart;  // path while incomplete
    std::time_t m_tBegin;   // of the request: the file's time later on
    CUniqueFd m_File;       // open once there is a byte of it
    std::uint64_t m_nStart = 0;
    std::uint64_t m_nDone = 0;
    std::uint64_t m_nSize = 0;
};
