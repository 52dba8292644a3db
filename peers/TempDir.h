// A directory of one's own below that for temporary files, removed at the end with all that is in
// it.
//
// Threads: no lock inside; the path does not change.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

class CTempDir {
public:
    // Throws std::system_error when it cannot be made.
    CTempDir() {
        if (mkdtemp(m_strPath.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "temporary directory");
        }
    }
    ~CTempDir() {
        std::error_code ignored;  // nobody is left who could be told
        std::filesystem::remove_all(m_strPath, ignored);
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;

    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath = (std::filesystem::temp_directory_path() / "tarvik-XXXXXX").string();
};
