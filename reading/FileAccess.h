// Whether this program may read a file, and what a person can do who may not.
//
// Threads: any.
#pragma once

#include <string>

// Empty when strPath can be read, or cannot for another reason than missing rights. Otherwise what
// to do about it, as in "may not be read by you: join the group tarvik-log (...)"; the group is
// that of the file, or of the first directory on its way that is closed.
std::string WhyForbidden(const std::string& strPath);
