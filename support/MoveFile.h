// Moving a file, to another file system too: under its new name it is whole or not there at all,
// also after a power failure in the middle.
//
// Threads: any; callers see to it that a file is moved by one of them at a time.
#pragma once

#include <string>

// Moves the regular file or symbolic link strFrom to strTo, in place of what is there. Within a
// file system that is a renaming. Else the file is copied to strPart, in the directory of strTo,
// with its mode, owner, as far as that is allowed, and time of change; flushed; renamed; and
// strFrom removed. strPart may be left of a move that was cut off, which a new call begins again.
// True when strTo is there; false when some step failed: strFrom is there then, and neither strPart
// nor a new strTo.
[[nodiscard]] bool MoveFile(const std::string& strFrom, const std::string& strTo,
                            const std::string& strPart);
