#pragma once

#include <fstream>
#include <sstream>
#include <string>

// The content of a file; empty without one.
inline std::string ReadWhole(const std::string& strPath) {
    std::ostringstream content;
    content << std::ifstream(strPath, std::ios::binary).rdbuf();
    return content.str();
}
