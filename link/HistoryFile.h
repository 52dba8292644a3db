// The files that a receiver may have: regular files directly in the directory of the history or in
// that of the day's file. No name leads anywhere else.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <string>

// Opens the file of that name for reading, in /hislog/ or, where there is none, in /log/. Returns
// its descriptor, or -1 with errno: ENOENT when neither directory has a regular file of that name,
// which no name with a "/" has, and no link.
[[nodiscard]] int OpenHistoryFile(const std::string& strName);

// The size of an open file in bytes; -1 when it cannot be told or does not fit.
std::int32_t FileSize(int nFile);
