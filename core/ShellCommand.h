// Shell commands of the service, and how names from outside get into them.
//
// Threads: any; the caller waits until the command has ended.
#pragma once

#include <string>

// Runs strCommand in a shell and waits for it. Returns 0 when it could be started, whatever became
// of it, and 5 when not. Its output is not read.
int RunShellCommand(const std::string& strCommand);

// strPath as one word of a shell command: as it stands when it consists of letters, digits, "/",
// ".",
// "_" and "-", else in single quotes, so that the shell interprets nothing of it.
std::string QuoteForShell(const std::string& strPath);
