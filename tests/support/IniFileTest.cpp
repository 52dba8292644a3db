// Which line is what, what comes back when a file is written again, and which failures are told.
#include "support/IniFile.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

class IniFile : public testing::Test {
protected:
    void SetUp() override {
        std::string strTemplate = testing::TempDir() + "tarvik-ini-XXXXXX";
        ASSERT_NE(mkdtemp(strTemplate.data()), nullptr);
        m_strDir = strTemplate;
    }
    ~IniFile() override {
        std::error_code ignored;
        fs::remove_all(m_strDir, ignored);
    }

    std::string Write(const std::string& strText) const {
        std::string strPath = m_strDir + "/in.conf";
        std::ofstream(strPath, std::ios::binary) << strText;
        return strPath;
    }

    // What the object looks like when it is saved.
    std::string Saved(const CIniFile& ini) const {
        const std::string strPath = m_strDir + "/out.conf";
        EXPECT_TRUE(ini.Save(strPath));
        std::ifstream file(strPath, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string LoadedAndSaved(const std::string& strText) const {
        CIniFile ini;
        EXPECT_TRUE(ini.Load(Write(strText)));
        return Saved(ini);
    }

    std::string m_strDir;
};

struct TextCase {
    const char* szName;
    std::string strText;   // of the file that is loaded
    std::string strSaved;  // what is written back
};

class IniFileText : public IniFile, public testing::WithParamInterface<TextCase> {};

TEST_P(IniFileText, IsUnderstoodLineByLine) {
    EXPECT_EQ(LoadedAndSaved(GetParam().strText), GetParam().strSaved);
}

std::string TextCaseName(const testing::TestParamInfo<TextCase>& test) {
    return test.param.szName;
}

INSTANTIATE_TEST_SUITE_P(
    Lines, IniFileText,
    testing::Values(TextCase{"NoLine", "", ""}, TextCase{"Blanks", " \t\r\n\n  ", "\n\n\n"},
                    TextCase{"Notes", "# note\n ; note\n//note\n#\n;\n//\n;x\n//=\n#[a]\n",
                             "# note\n; note\n//note\n#\n;\n//\n;x\n//=\n#[a]\n"},
                    TextCase{"TooShort", "/x\n/\na=\n=\n==\nab\n[\n", ""},
                    TextCase{"ShortestEntries", "a=b\n=xy\n/==\n", "a = b\n = xy\n/ = =\n"},
                    TextCase{"NoEqualSign", "abc\n/ab\n[PORT_CONFIG\nPORT_CONFIG]\n", ""},
                    TextCase{"FirstEqualSignSplits", "a = b = c\n", "a = b = c\n"},
                    TextCase{"NoInlineNote", "key = value ; text # more",
                             "key = value ; text # more\n"},
                    TextCase{"OtherWhiteSpaceStays", "\va=b\f\n", "\va = b\f\n"},
                    TextCase{"CaseMatters", "Key=1\nkey=2\n", "Key = 1\nkey = 2\n"},
                    TextCase{"NulEndsTheLine", "a=1\0b\nc=2\n\0d=3\n"s, "a = 1\nc = 2\n\n"},
                    TextCase{"HighBytes", "caf\xE9=\xFF\n", "caf\xE9 = \xFF\n"}),
    TextCaseName);

INSTANTIATE_TEST_SUITE_P(
    Sections, IniFileText,
    testing::Values(TextCase{"NameTrimmed", " \t[ PORT_CONFIG ] \r\nnSTPort\t=\t1\r\n",
                             "[PORT_CONFIG]\nnSTPort = 1\n"},
                    TextCase{"TextInFront", "a=bc\n[A]\na=bd\n", "a = bc\n[A]\na = bd\n"},
                    TextCase{"EqualSignInTheName", "[a=b]\nc=d\n[a=b\n[a]=b\n",
                             "[a=b]\nc = d\n[a = b\n[a] = b\n"},
                    TextCase{"HeaderTooShort", "[A]\na=1\n[]\nb=2\n", "[A]\na = 1\nb = 2\n"},
                    TextCase{"HeaderOnly", "[A]\n[B]\n", ""},
                    TextCase{"Nameless", "[A]\na=1\n[ ]\nb=2\n", "[A]\na = 1\n[]\nb = 2\n"},
                    TextCase{"NamelessAtTheFront", "[ ]\nb=2\n[A]\na=1\n", "[A]\na = 1\n"},
                    TextCase{"OpenedTwice", "[A]\na=1\n#x\n[B]\nb=2\n[A]\nc=3\n[B]\n#y\n",
                             "[A]\na = 1\n#x\nc = 3\n[B]\nb = 2\n#y\n"},
                    TextCase{"NotesCountAnew", "[A]\n#x\n[B]\nb=2\n[A]\n#y\n#z\n",
                             "[A]\n#y\n#z\n[B]\nb = 2\n"}),
    TextCaseName);

INSTANTIATE_TEST_SUITE_P(
    Repetitions, IniFileText,
    testing::Values(TextCase{"FirstPlaceLastValue", "a=1\nb=2\na=3\n", "a = 3\nb = 2\n"},
                    TextCase{"TooShortToRepeat", "a=1\na=\n", "a = 1\n"},
                    TextCase{"EmptyValue", "a=1\na = \n", "a = \n"},
                    TextCase{"KeyLikeANote", "#x\n__m_note0 = y\n__m_notes = z\n", "y\nz\n"}),
    TextCaseName);

const std::string kX1021(1021, 'x');

INSTANTIATE_TEST_SUITE_P(
    LongLines, IniFileText,
    testing::Values(TextCase{"FillsOnePiece", "a=" + kX1021.substr(1) + "\nb=1\n",
                             "a = " + kX1021.substr(1) + "\nb = 1\n"},
                    TextCase{"NewlineInAPieceOfItsOwn", "a=" + kX1021 + "\nb=1\n",
                             "a = " + kX1021 + "\n\nb = 1\n"},
                    TextCase{"RestIsDropped", "a=" + kX1021 + std::string(477, 'y') + "\n",
                             "a = " + kX1021 + "\n"},
                    TextCase{"RestIsALine", "a=" + kX1021 + "[B]\nb=2\n" + "b=" + kX1021 + "c=3",
                             "a = " + kX1021 + "\n[B]\nb = " + kX1021 + "\nc = 3\n"}),
    TextCaseName);

TEST_F(IniFile, KeepsNotesAndOrderWhenAFileIsChanged) {
    const std::string strText =
        "; log service\r\n"
        "\r\n"
        "[ PORT_CONFIG ]\r\n"
        "  # agent\r\n"
        "nSTPort=6000\r\n"
        "stray line\r\n"
        "PortFromViewer = 6001 \r\n"
        "\r\n"
        "[local]\r\n"
        "LANGUAGE=0";
    const std::string strChanged =
        "; log service\n"
        "\n"
        "[PORT_CONFIG]\n"
        "# agent\n"
        "nSTPort = 6000\n"
        "PortFromViewer = 6001\n"
        "\n"
        "added = yes\n"
        "[local]\n"
        "LANGUAGE = 1\n"
        "[new]\n"
        "key = value\n";
    CIniFile ini;
    ASSERT_TRUE(ini.Load(Write(strText)));
    EXPECT_EQ(ini.GetValue("PORT_CONFIG", "nSTPort"), "6000");
    EXPECT_EQ(ini.GetValue("local", "LANGUAGE"), "0");
    EXPECT_EQ(ini.GetValue("local", "nSTPort"), "");
    ini.SetValue("local", "LANGUAGE", "1");
    ini.SetValue("new", "key", "value");
    ini.SetValue("PORT_CONFIG", "added", "yes");
    EXPECT_EQ(ini.GetValue("local", "LANGUAGE"), "1");
    EXPECT_EQ(Saved(ini), strChanged);
    EXPECT_EQ(LoadedAndSaved(strChanged), strChanged);
}

TEST_F(IniFile, MergesASecondFile) {
    CIniFile ini;
    ASSERT_TRUE(ini.Load(Write("#1\na=bc\n[A]\n#2\nx=10\ny=20\n[B]\nz=30\n")));
    ASSERT_TRUE(ini.Load(Write("#3\n[B]\nnew=40\n[A]\n#4\ny=21\n[C]\nw=50\n")));
    EXPECT_EQ(Saved(ini),
              "#3\na = bc\n[A]\n#4\nx = 10\ny = 21\n[B]\nz = 30\nnew = 40\n[C]\nw = 50\n");
    EXPECT_EQ(ini.GetValue("A", "y"), "21");
    EXPECT_EQ(ini.GetValue("__g_header__", "a"), "bc");
}

TEST_F(IniFile, NamesThatReadAlikeTogetherShareTheirValue) {
    CIniFile ini;
    ini.SetValue("AB", "C", "1");
    ini.SetValue("A", "BC", "2");
    EXPECT_EQ(ini.GetValue("AB", "C"), "2");
    EXPECT_EQ(ini.GetValue("A", "BC"), "2");
    EXPECT_EQ(Saved(ini), "[AB]\nC = 1\n[A]\nBC = 2\n");
}

TEST_F(IniFile, WritesLinesOfAnyLengthWhole) {
    const std::string strSection(3000, 's');
    const std::string strKey(4000, 'k');
    const std::string strValue(5000, 'v');
    CIniFile ini;
    ini.SetValue(strSection, strKey, strValue);
    ini.SetValue(strSection, "__m_note0", strValue);
    EXPECT_EQ(Saved(ini),
              "[" + strSection + "]\n" + strKey + " = " + strValue + "\n" + strValue + "\n");
}

TEST_F(IniFile, TellsWhatCannotBeRead) {
    CIniFile ini;
    ini.SetValue("A", "x", "1");
    EXPECT_FALSE(ini.Load(m_strDir + "/missing.conf"));
    EXPECT_FALSE(ini.Load(m_strDir)) << "a directory opens, and fails when it is read";
    EXPECT_EQ(Saved(ini), "[A]\nx = 1\n");
}

TEST_F(IniFile, TellsWhatCannotBeWritten) {
    CIniFile ini;
    ini.SetValue("A", "x", "1");
    EXPECT_FALSE(ini.Save(m_strDir + "/missing/out.conf"));
    EXPECT_FALSE(ini.Save("/dev/full")) << "less than a buffer, so only flushing can fail";
    ini.SetValue("A", "y", std::string(1 << 20, 'y'));
    EXPECT_FALSE(ini.Save("/dev/full")) << "more than a buffer, so a line fails";
    EXPECT_TRUE(ini.Save("/dev/null"));
}

TEST_F(IniFile, ClosesTheFileOnEveryWayOut) {
    const auto nOpen = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto nBefore = nOpen();
    CIniFile ini;
    EXPECT_TRUE(ini.Load(Write("a = 1\n")));
    EXPECT_FALSE(ini.Load(m_strDir));
    EXPECT_TRUE(ini.Save("/dev/null"));
    EXPECT_FALSE(ini.Save("/dev/full"));
    EXPECT_EQ(nOpen(), nBefore);
}

// Bytes at random with the ones that mean something among them, and a megabyte without a line end.
TEST_F(IniFile, TakesAnyBytes) {
    std::mt19937 rng(511);
    const std::string strAlphabet = "[]=;#/ \n\n\0\r\xFF"s + "ab";
    std::string strText;
    for (int i = 0; i < 200'000; ++i) {
        strText += strAlphabet[rng() % strAlphabet.size()];
    }
    strText.append(1 << 20, '=');
    const std::string strSaved = LoadedAndSaved(strText);
    EXPECT_EQ(strSaved.find('\0'), std::string::npos);
    EXPECT_TRUE(strSaved.ends_with("\n"));
}

}  // namespace
