// The display language: what is stored, what is copied, who is told, and what a failure leaves.
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "console/ConsoleHarness.h"

namespace {

namespace fs = std::filesystem;

const std::string kFile = "# keep\n[1]\nAPP = netd\n\n[local]\nLANGUAGE = Chinese\nZONE = 8\n";
const std::string kEnglishFile =
    "# keep\n[1]\nAPP = netd\n\n[local]\nLANGUAGE = English\nZONE = 8\n";
// The last field is what a frame of 20 bytes leaves of the structure.
const std::string kEnglishFrame = "4719582614000000000000000a0000000100000000000000";

const char* const kConf = "/etc/tarvik/log/log.conf";
const char* const kCopy = "/config/etc/tarvik/log/log.conf";

class LanguageTest : public ConsoleTest {
protected:
    void SetUp() override {
        ConsoleTest::SetUp();
        fs::create_directories(m_strRoot + "/etc/tarvik/log");
        fs::create_directories(m_strRoot + "/config/etc/tarvik/log");
        Write(kConf, kFile);
    }

    const std::string m_strConf = m_strRoot + kConf;
    const std::string m_strBeside = m_strConf + ".new";  // where the new file is written
};

TEST_F(LanguageTest, AChangeKeepsTheFileWhereAndWhoseItIsAndIsToldToEveryClient) {
    Start();
    CTelnet telnet = LogIn();
    const std::string strElsewhere = m_strRoot + "/elsewhere";
    fs::rename(m_strConf, strElsewhere);
    fs::create_symlink("../../../elsewhere", m_strConf);
    Write("/elsewhere.new", "left behind by a power failure");
    ASSERT_EQ(chmod(strElsewhere.c_str(), 0604), 0);
    const bool bForeign = chown(strElsewhere.c_str(), 1, 2) == 0;  // root may
    std::thread upload([this] { EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), 0); });
    telnet.Send("set 0 1\r\n");
    EXPECT_EQ(telnet.Read(kSetReply.size()), kSetReply);
    upload.join();
    std::multiset<std::string> frames;
    for (int nFrame = 0; nFrame < 6; ++nFrame) {
        frames.insert(NextFrame(0));
    }
    EXPECT_EQ(frames.count(kEnglishFrame), 5U);  // one to each client
    EXPECT_EQ(frames.count(FrameHex(0, 1)), 1U);
    EXPECT_TRUE(fs::is_symlink(m_strConf));
    EXPECT_EQ(Read("/elsewhere"), kEnglishFile);
    EXPECT_EQ(Read(kCopy), kEnglishFile);
    EXPECT_FALSE(fs::exists(strElsewhere + ".new"));
    struct stat file {};
    ASSERT_EQ(stat(strElsewhere.c_str(), &file), 0);
    EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), 0);  // as it is: told again, not stored again
    EXPECT_EQ(NextFrame(0), kEnglishFrame);
    struct stat again {};
    ASSERT_EQ(stat(strElsewhere.c_str(), &again), 0);
    EXPECT_EQ(again.st_ino, file.st_ino);
    EXPECT_EQ(file.st_mode & 07777, 0604U);
    EXPECT_TRUE(!bForeign || (file.st_uid == 1 && file.st_gid == 2));
}

TEST_F(LanguageTest, OnlyTheExactTextReadsAsEnglish) {
    const std::pair<std::string, int> cases[] = {
        {kEnglishFile, 1},
        {kFile, 0},
        {"[local]\nLANGUAGE = english\n", 0},
        {"[local]\nLANGUAGE = English 1\n", 0},
        {"[other]\nLANGUAGE = English\n", 0},
    };
    for (const auto& [strContent, nLanguage] : cases) {
        Write(kConf, strContent);
        std::uint8_t byLanguage = 7;
        EXPECT_EQ(m_Console.GetLanguageSetting(byLanguage), 0) << strContent;
        EXPECT_EQ(byLanguage, nLanguage) << strContent;
    }
}

TEST_F(LanguageTest, AFailedStoreChangesNothingAndTellsNobody) {
    ASSERT_EQ(m_Console.Init(m_wPort), 0);
    const auto LimitFiles = [](rlim_t nBytes) {
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = std::min(nBytes, limit.rlim_max);
        setrlimit(RLIMIT_FSIZE, &limit);
    };
    std::signal(SIGXFSZ, SIG_IGN);
    const struct {
        int nResult;
        std::function<void()> fnBreak;
        std::function<void()> fnRepair;
        std::string strTrace;
    } cases[] = {
        {20, [&] { fs::remove(m_strConf); }, [] {},
         " SaveLanguageSetting\nCommunicatThread SaveLanguageSetting load from file log.conf "
         "failed.\n"},
        {30, [&] { fs::create_directory(m_strBeside); }, [&] { fs::remove(m_strBeside); },
         " SaveLanguageSetting\nCommunicatThread SaveLanguageSetting  LANGUAGE save to log.conf "
         "failed.\n"},
        // a full disk, which has no room for a trace either
        {30, [&] { LimitFiles(16); }, [&] { LimitFiles(RLIM_INFINITY); }, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.nResult);
        Write(kConf, kFile);
        c.fnBreak();
        const std::string strBefore = Read(kConf);
        EXPECT_EQ(m_Console.SaveLanguageSetting(2), 10);
        EXPECT_EQ(m_Console.SaveLanguageSetting(1), c.nResult);
        EXPECT_TRUE(IsTraced(c.strTrace));
        EXPECT_EQ(m_Console.SaveLanguageAndNotify(1), -1);
        c.fnRepair();
        EXPECT_EQ(Read(kConf), strBefore);
        EXPECT_FALSE(fs::exists(m_strBeside));
        EXPECT_FALSE(fs::exists(m_strRoot + kCopy));
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
        EXPECT_EQ(NextFrame(0), kEnglishFrame);
    }
    EXPECT_FALSE(behind.ReceiveControl(0));
    EXPECT_EQ(Read(kConf), kEnglishFile);
}

}  // namespace
