// A root of the tests' own, for code that opens the service's files.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "peers/ReadWhole.h"

// Paths take their root from the environment once a process, so all tests of a process share its
// name; each finds it empty but for the directories.
class PrivateRoot : public testing::Test {
protected:
    void SetUp() override {
        for (const char* szName : {"/log", "/hislog", "/var/log"}) {
            std::filesystem::create_directories(m_strRoot + szName);
        }
    }
    void TearDown() override { std::filesystem::remove_all(m_strRoot); }

    // Files of the root.
    std::string Read(const std::string& strPath) const { return ReadWhole(m_strRoot + strPath); }
    void Write(const std::string& strPath, const std::string& strContent) const {
        std::ofstream(m_strRoot + strPath, std::ios::binary) << strContent;
    }
    std::string Trace() const { return Read("/var/log/logs.txt"); }

    const std::string m_strRoot = Root();

private:
    static const std::string& Root() {
        static const std::string strRoot = [] {
            std::string strName =
                (std::filesystem::temp_directory_path() / "tarvik-XXXXXX").string();
            setenv("TARVIK_ROOT", mkdtemp(strName.data()), 1);
            return strName;
        }();
        return strRoot;
    }
};
