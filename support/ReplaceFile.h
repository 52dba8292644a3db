// Replacing a file whole: whoever opens it, also after a power failure, finds the old content or
// the new one, never a part.
//
// Threads: any; callers see to it that a file is replaced by one of them at a time.
#pragma once

#include <functional>
#include <string>

// Has fnWrite write the new content to a file beside strPath, named like it with ".new" behind,
// which then takes its place with the old one's mode and owner. A symbolic link stays, and the file
// that it leads to is replaced. A file that is a mount of its own cannot be replaced: fnWrite is
// called a second time then, with strPath itself. Access lists and extended attributes of the old
// file are not carried over. fnWrite gets the new file's path, opens it by that and returns whether
// all is written. True when the file is replaced; false when it is as before, because it does not
// exist or some step failed: nothing is left beside it then.
[[nodiscard]] bool ReplaceFile(const std::string& strPath,
                               const std::function<bool(const std::string&)>& fnWrite);
