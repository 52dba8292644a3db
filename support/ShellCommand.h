// Shell commands of the service, and how names from outside get into them.
//
// Threads: any; the caller waits until the command has ended or it is told to give up.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

// Runs strCommand in a shell of its own and waits for its end. Signals act on it as on any program,
// whatever this thread blocks and this process ignores. Its standard output goes to /dev/null.
// pGiveUp: not 0 lets the command run on and returns within about 10 ms; null waits in any case.
// Returns 0 when the command could be started, whatever became of it, and 5 when not.
int RunShellCommand(const std::string& strCommand,
                    const std::atomic<std::int32_t>* pGiveUp = nullptr);

// Runs strCommand in the same way and gives its first line to strLine, with its line end, cut after
// nMost characters; empty when the command printed nothing. Waits for the end of the command. False
// when it could not be started.
[[nodiscard]] bool ReadShellLine(const std::string& strCommand, std::size_t nMost,
                                 std::string& strLine);

// strPath as one word of a shell command: as it stands when it consists of letters, digits, "/",
// ".", "_" and "-", else in single quotes, so that the shell interprets nothing of it.
std::string QuoteForShell(const std::string& strPath);
