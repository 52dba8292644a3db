// Where the service's files are: every absolute path goes through here.
//
// Threads: any.
#pragma once

#include <string>

// szPath, an absolute path, with the directory named by the environment variable TARVIK_ROOT in
// front of it; szPath itself when that is unset or empty. The variable is read once, at the first
// call; a relative directory counts from the working directory of that moment.
std::string SystemPath(const char* szPath);
