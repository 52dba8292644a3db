// The display language: what is stored, what is copied, who is told, and what a failure leaves.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>

#include "console/ConsoleHarness.h"

namespace {

namespace fs = std::filesystem;

const std::string kFile = "# keep\n[1]\nAPP = netd\n\n[local]\nLANGUAGE = Chinese\nZONE = 8\n";
const std::string kEnglishFile =
    "# keep\n[1]\nAPP = netd\n\n[local]\nLANGUAGE = English\nZONE = 8\n";
const std::string kEnglishFrame = "4719582614000000000000000a00000001000000";
const std::string kNoParam2 = "00000000";  // what a frame of 20 bytes leaves of the structure

class LanguageTest : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        fs::create_directories(m_strConf.substr(0, m_strConf.rfind('/')));
        fs::create_directories(m_strCopy.substr(0, m_strCopy.rfind('/')));
        Write(kFile);
    }
    void Write(const std::string& strContent) const { std::ofstream(m_strConf) << strContent; }
    static std::string Read(const std::string& strPath) {
        std::ostringstream content;
        content << std::ifstream(strPath).rdbuf();
        return content.str();
    }

    const std::string m_strConf = m_strRoot + "/etc/tarvik/log/log.conf";
    const std::string m_strCopy = m_strRoot + "/config/etc/tarvik/log/log.conf";
};

TEST_F(LanguageTest, AChangeIsStoredCopiedAndToldToEveryClientWhileTheConsoleServes) {
    Start();
    CTelnet telnet = LogIn();
    ASSERT_EQ(chmod(m_strConf.c_str(), 0604), 0);
    const bool bForeign = chown(m_strConf.c_str(), 1, 2) == 0;  // root may
    Write(kFile);
    std::thread upload([this] { EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), 0); });
    telnet.Send("set 0 1\r\n");
    EXPECT_EQ(telnet.Read(kSetReply.size()), kSetReply);
    upload.join();
    std::multiset<std::string> frames;
    for (int nFrame = 0; nFrame < 6; ++nFrame) {
        frames.insert(NextFrame());
    }
    EXPECT_EQ(frames.count(kEnglishFrame + kNoParam2), 5U);  // the configured clients
    EXPECT_EQ(frames.count(FrameHex(0, 1)), 1U);
    EXPECT_EQ(Read(m_strConf), kEnglishFile);
    EXPECT_EQ(Read(m_strCopy), kEnglishFile);
    EXPECT_FALSE(fs::exists(m_strConf + ".new"));
    struct stat file {};
    ASSERT_EQ(stat(m_strConf.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0604U);
    EXPECT_TRUE(!bForeign || (file.st_uid == 1 && file.st_gid == 2));
}

TEST_F(LanguageTest, OnlyTheExactTextReadsAsEnglish) {
    const struct {
        std::string strContent;
        int nLanguage;
    } cases[] = {
        {kEnglishFile, 1},
        {"[local]\n LANGUAGE=English \n", 1},
        {kFile, 0},
        {"[local]\nLANGUAGE = english\n", 0},
        {"[local]\nLANGUAGE = English 1\n", 0},
        {"[local]\nLANGUAGE =\n", 0},
        {"[other]\nLANGUAGE = English\n", 0},
        {"", 0},
    };
    for (const auto& c : cases) {
        Write(c.strContent);
        std::uint8_t byLanguage = 7;
        EXPECT_EQ(m_Console.GetLanguageSetting(byLanguage), 0) << c.strContent;
        EXPECT_EQ(byLanguage, c.nLanguage) << c.strContent;
    }
}

TEST_F(LanguageTest, AMissingKeyIsAddedToTheFileBehindALink) {
    const std::string strElsewhere = m_strRoot + "/elsewhere";
    std::ofstream(strElsewhere) << "[1]\nAPP = netd\n";
    fs::remove(m_strConf);
    fs::create_symlink("../../../elsewhere", m_strConf);
    std::ofstream(strElsewhere + ".new") << "left behind by a power failure";
    EXPECT_EQ(m_Console.SaveLanguageSetting(0), 0);
    EXPECT_TRUE(fs::is_symlink(m_strConf));
    EXPECT_EQ(Read(strElsewhere), "[1]\nAPP = netd\n[local]\nLANGUAGE = Chinese\n");
    EXPECT_EQ(Read(m_strCopy), Read(strElsewhere));
    EXPECT_FALSE(fs::exists(strElsewhere + ".new"));
}

TEST_F(LanguageTest, AFailedStoreChangesNothingAndTellsNobody) {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    const std::string strBeside = m_strConf + ".new";
    const auto LimitFiles = [](rlim_t nBytes) {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::min(nBytes, limit.rlim_max);
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    std::signal(SIGXFSZ, SIG_IGN);
    const struct {
        const char* szName;
        int nLanguage;
        int nResult;
        std::function<void()> fnBreak;
        std::function<void()> fnRepair;
        std::string strTrace;
    } cases[] = {
        {"no such language", 2, 10, [] {}, [] {}, ""},
        {"no file", 1, 20, [&] { fs::remove(m_strConf); }, [] {},
         " SaveLanguageSetting\nCommunicatThread SaveLanguageSetting load from file log.conf "
         "failed.\n"},
        {"no room beside it", 1, 30, [&] { fs::create_directory(strBeside); },
         [&] { fs::remove(strBeside); },
         " SaveLanguageSetting\nCommunicatThread SaveLanguageSetting  LANGUAGE save to log.conf "
         "failed.\n"},
        {"disk full", 1, 30, [&] { LimitFiles(16); }, [&] { LimitFiles(RLIM_INFINITY); }, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szName);
        const auto byLanguage = static_cast<std::uint8_t>(c.nLanguage);
        Write(kFile);
        c.fnBreak();
        const std::string strBefore = Read(m_strConf);
        EXPECT_EQ(m_Console.SaveLanguageSetting(byLanguage), c.nResult);
        EXPECT_TRUE(IsTraced(c.strTrace));
        EXPECT_EQ(m_Console.SaveLanguageAndNotify(byLanguage), -1);
        c.fnRepair();
        EXPECT_EQ(Read(m_strConf), strBefore);
        EXPECT_FALSE(fs::exists(strBeside));
        EXPECT_FALSE(fs::exists(m_strCopy));
        EXPECT_EQ(NextFrame(0), "");
    }
    fs::remove(m_strConf);
    std::uint8_t byLanguage = 1;
    EXPECT_EQ(m_Console.GetLanguageSetting(byLanguage), 20);
    EXPECT_EQ(byLanguage, 0);
    EXPECT_TRUE(IsTraced("CommunicatThread GetLanguageSetting failed to load file log.conf\n"));
    EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), -1);
    EXPECT_TRUE(IsTraced("SaveLanguageAndNotify failed to SaveLanguageSetting.\n"));
}

TEST_F(LanguageTest, ClientsBehindOneThatCannotBeReachedAreNotTold) {
    m_Console.AddLogClient({7, 65536, "port 0"});  // nothing can be sent there
    const std::uint16_t wBehind = FreePort(SOCK_DGRAM);
    CLogClient behind(wBehind, wBehind);
    m_Console.AddLogClient({8, wBehind, "behind"});
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), -3);
    EXPECT_TRUE(IsTraced("SaveLanguageAndNotify failed to NotifyLanguageChanged\n"));
    for (int nFrame = 0; nFrame < 5; ++nFrame) {
        EXPECT_EQ(NextFrame(0), kEnglishFrame + kNoParam2);
    }
    EXPECT_FALSE(behind.ReceiveControl(0));
    EXPECT_EQ(Read(m_strConf), kEnglishFile);
}

}  // namespace
