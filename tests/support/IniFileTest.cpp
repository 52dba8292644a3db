// Which line is what, what comes back when a file is written again, and which failures are told.
#include "support/IniFile.h"

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

class IniFile : public testing::Test {
protected:
    ~IniFile() override { fs::remove(m_strPath); }

    // What the object looks like when the text was loaded and it is saved again.
    std::string Through(CIniFile& ini, const std::string& strText) const {
        std::ofstream(m_strPath, std::ios::binary) << strText;
        EXPECT_TRUE(ini.Load(m_strPath));
        EXPECT_TRUE(ini.Save(m_strPath));
        std::ifstream file(m_strPath, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    const std::string m_strPath = testing::TempDir() + "tarvik-ini-" + std::to_string(getpid());
};

TEST_F(IniFile, UnderstandsLineByLine) {
    const std::string strX(1021, 'x');  // with "a=" in front, all that one piece of a line holds
    const struct {
        const char* szName;
        std::string strText;   // of the file that is loaded
        std::string strSaved;  // what is written back
    } kCases[] = {
        {"notes", " \t\r\n # n\n;\n//note\n//=\n#[a]\n", "\n# n\n;\n//note\n//=\n#[a]\n"},
        {"too short", "/x\na=\n=xy\n==\n/==\n[\n[]\n", " = xy\n/ = =\n"},
        {"no equal sign", "abc\n/ab\n[PORT_CONFIG\nPORT_CONFIG]\n", ""},
        {"first equal sign splits", "a =\tb = c ; # d", "a = b = c ; # d\n"},
        {"NUL ends the line", {"a=1\0b\n\0d=3\n", 11}, "a = 1\n\n"},
        {"other bytes stay", "\va\xE9=\xFF\f\n", "\va\xE9 = \xFF\f\n"},
        {"section name trimmed", "\t[ A ] \r\nx\t=\t1\r\n", "[A]\nx = 1\n"},
        {"equal sign in a section", "[a=b]\nc=d\n[a=b\n[a]=b\n", "[a=b]\nc = d\n[a = b\n[a] = b\n"},
        {"nameless, empty", "a=1\n[ ]\nb=2\n[A]\n", "a = 1\n[]\nb = 2\n"},
        {"nameless at the front", "[ ]\nb=2\n[A]\na=1\n", "[A]\na = 1\n"},
        {"opened twice", "[A]\n#x\n[B]\nb=2\n[A]\n#y\na=1", "[A]\n#y\na = 1\n[B]\nb = 2\n"},
        {"first place, last value", "a=1\nB=2\na = \nb=3\n", "a = \nB = 2\nb = 3\n"},
        {"key like a note", "#x\n__m_note0 = y\n", "y\n"},
        {"newline in a piece of its own", "a=" + strX + "\nb=1", "a = " + strX + "\n\nb = 1\n"},
        {"rest is a line", "a=" + strX + "[B]\nb=2", "a = " + strX + "\n[B]\nb = 2\n"},
    };
    for (const auto& c : kCases) {
        CIniFile ini;
        EXPECT_EQ(Through(ini, c.strText), c.strSaved) << c.szName;
    }
}

TEST_F(IniFile, KeepsNotesAndOrderWhenAFileIsChangedAndTakesASecondOne) {
    CIniFile ini;
    Through(ini,
            "; log service\r\n\r\n[ PORT_CONFIG ]\r\n  # agent\r\nnSTPort=6000\r\n"
            "stray line\r\nPortFromViewer = 6001 \r\n\r\n[local]\r\nLANGUAGE=0");
    ini.SetValue("local", "LANGUAGE", "1");
    ini.SetValue("new", "key", std::string(5000, 'v'));
    ini.SetValue("PORT_CONFIG", "added", "yes");
    EXPECT_EQ(ini.GetValue("PORT_CONFIG", "nSTPort"), "6000");
    EXPECT_EQ(ini.GetValue("local", "nSTPort"), "");
    EXPECT_EQ(ini.GetValue("loc", "alLANGUAGE"), "1") << "names that read alike share a value";
    EXPECT_EQ(Through(ini, "# log\n[PORT_CONFIG]\nnSTPort = 7\n[local]\nnew=2\n"),
              "# log\n\n[PORT_CONFIG]\n# agent\nnSTPort = 7\nPortFromViewer = 6001\n\nadded = yes\n"
              "[local]\nLANGUAGE = 1\nnew = 2\n[new]\nkey = " +
                  std::string(5000, 'v') + "\n");
}

TEST_F(IniFile, TellsEveryFailureAndLeavesNoFileOpen) {
    const auto nOpen = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto nBefore = nOpen();
    CIniFile ini;
    EXPECT_FALSE(ini.Load("/dev/null/missing"));
    EXPECT_FALSE(ini.Load("/dev")) << "a directory opens, and fails when it is read";
    CIniFile big;
    std::ofstream(m_strPath) << std::string(1024 * 1024 - 2, '\n') << "\n\n";
    EXPECT_TRUE(big.Load(m_strPath));
    std::ofstream(m_strPath, std::ios::app) << "#";
    EXPECT_FALSE(big.Load(m_strPath));
    EXPECT_EQ(errno, EFBIG);
    ini.SetValue("A", "x", "1");
    EXPECT_FALSE(ini.Save("/dev/null/missing"));
    EXPECT_FALSE(ini.Save("/dev/full")) << "less than a buffer, so only flushing can fail";
    ini.SetValue("A", "y", std::string(1 << 20, 'y'));
    EXPECT_FALSE(ini.Save("/dev/full")) << "more than a buffer, so a line fails";
    EXPECT_TRUE(ini.Save("/dev/null"));
    EXPECT_EQ(nOpen(), nBefore);
}

}  // namespace
