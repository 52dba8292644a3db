// What the service's threads share, made once for a target and put back between two inputs, and a
// root with the files that they look at.
//
// Threads: the target's only one.
#pragma once

#include <cstdint>
#include <string>

// Makes the private root that the service's paths begin with: a directory in memory, removed when
// the process ends, or the one that TARVIK_ROOT names. Then pipes; standard output is dropped.
// Called once, before anything else.
void PrepareService();

// szPath as the service sees it: with the root in front.
std::string RootPath(const std::string& strPath);

// Makes a file in the root, with its directories, in place of the one there was.
void PutFile(const std::string& strPath, const std::string& strContent);

// The content of a file in the root; empty without one.
std::string GetFile(const std::string& strPath);

// Empties every pipe, the message queue and the circle buffer, which gets nRingBytes, and ends the
// timers.
void ResetService(std::uint32_t nRingBytes = 102400);
