// What sending a file costs at least: its bytes, sent from memory over a loopback TCP connection
// 1024 at a time.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

// A process of its own with a thread for each of nSenders connections to wPort on 127.0.0.1, which
// sends strBytes over and over, without delay, until the other side closes. All of that within the
// life of the object. Throws std::system_error when it cannot be started.
class CBareUpload {
public:
    CBareUpload(std::uint16_t wPort, int nSenders, const std::string& strBytes);
    ~CBareUpload();  // ends the process
    CBareUpload(const CBareUpload&) = delete;
    CBareUpload& operator=(const CBareUpload&) = delete;

private:
    pid_t m_nPid = 0;
};
