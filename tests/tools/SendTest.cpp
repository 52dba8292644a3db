// tarvik-log send, what check foretells of the real service, and that completion and the manual
// know every option.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "peers/Service.h"
#include "peers/Telnet.h"
#include "tools/LogClient.h"
#include "tools/ReadingTest.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class Send : public ReadingTest {
protected:
    Result RunSend(const CService& service, const std::string& strArguments) const {
        return Run(fmt::format("send --config {} {}", service.Path("/etc/tarvik/log/log.conf"),
                               strArguments));
    }

    bool SaysSoon(const std::string& strText) const {
        return WaitUntil([&] { return Read("/stderr").find(strText) != std::string::npos; });
    }

    // What was stored, each as "name severity text".
    std::vector<std::string> Stored(const CService& service) const {
        std::vector<std::string> stored;
        const std::string strFile = service.Path("/log/" + service.List("/log").front());
        for (const std::string& strLine : Lines(Run("show -o json " + strFile).strOutput)) {
            const auto record = nlohmann::json::parse(strLine);
            stored.push_back(record["name"].get<std::string>() + " " +
                             record["severity"].get<std::string>() + " " +
                             record["text"].get<std::string>());
        }
        return stored;
    }
};

TEST_F(Send, WordsAndLinesBecomeRecordsAndLossIsTold) {
    CService service(TARVIK_LOGD);
    Result result = RunSend(service, "--client beta nobody hears");
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErrors, StartsWith("tarvik-log send: 1 of 1 records lost: "));
    ASSERT_TRUE(service.Start());
    EXPECT_EQ(RunSend(service, "--client beta --type error -- --stats show").nStatus, 0);
    Write("/lines", "one\n\n" + std::string(278, 'x') + "\xC3\xA9\nlast");
    result = RunSend(service, "--client 0 --type 3 <lines");
    EXPECT_EQ(result.nStatus, 0) << result.strErrors;
    ASSERT_TRUE(WaitUntil([&] { return Stored(service).size() == 6; }));
    EXPECT_THAT(Stored(service), ElementsAre("beta error --stats show", "alpha debug one",
                                             "alpha debug ", "alpha debug " + std::string(278, 'x'),
                                             "alpha debug \xC3\xA9", "alpha debug last"));
}

TEST_F(Send, RealTimeLinesGoOutWhileTheConsoleWantsThem) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start());
    const std::string strInput = m_strRoot + "/input";
    ASSERT_EQ(mkfifo(strInput.c_str(), 0600), 0);
    int nStatus = -1;
    std::thread sender(
        [&] { nStatus = RunSend(service, "--client beta --realtime <input").nStatus; });
    CUniqueFd input(open(strInput.c_str(), O_WRONLY | O_CLOEXEC));
    const auto type = [&](const std::string& strLine) {
        EXPECT_EQ(write(input.Get(), strLine.data(), strLine.size()),
                  static_cast<ssize_t>(strLine.size()));
    };
    type("early\n");
    int nUnread = 1;
    EXPECT_TRUE(WaitUntil([&] { return ioctl(input.Get(), FIONREAD, &nUnread) == 0 && !nUnread; }));
    CTelnet console(service.ConsolePort());
    console.LogIn();
    console.Send("set 1 5\r\n");
    EXPECT_TRUE(SaysSoon("real-time logging on, value 5\n"));
    type("live\n");
    const std::string strShown = console.ReadUntil("[live]");
    EXPECT_THAT(strShown, HasSubstr("[live]"));
    EXPECT_EQ(strShown.find("early"), std::string::npos);
    const LogcCtrlFrame frame = MakeLanguageFrame(LANGUAGE_ENGLISH);
    CLogClient(service.ControlPort(1)).SendBytes(&frame, kLanguageFrameBytes);
    EXPECT_TRUE(SaysSoon("language English\n"));
    console.Send("x\r\n");
    EXPECT_TRUE(SaysSoon("real-time logging off\n"));
    input.Reset();
    sender.join();
    EXPECT_EQ(nStatus, 0);
}

struct ConfigCase {
    const char* szName;
    const char* szFind;  // in the default configuration
    std::string strReplace;
    int nStatus;  // 0: starts
    const char* szFinding;
};

class Check : public Send, public testing::WithParamInterface<ConfigCase> {};

TEST_P(Check, ForetellsHowTheServiceEnds) {
    const ConfigCase& c = GetParam();
    CService service(TARVIK_LOGD);
    std::string strConfig = service.DefaultConfiguration();
    strConfig = std::regex_replace(strConfig, std::regex(c.szFind), c.strReplace,
                                   std::regex_constants::format_first_only);
    EXPECT_EQ(strConfig == service.DefaultConfiguration(), *c.szFind == '^');
    service.WriteFile("/etc/tarvik/log/log.conf", strConfig);
    if (c.nStatus == 50) {
        std::filesystem::remove(service.Path("/etc/tarvik/log/log.conf"));
    }
    const Result result = Run("check " + service.Path("/etc/tarvik/log/log.conf"));
    EXPECT_EQ(result.nStatus, c.nStatus);
    EXPECT_THAT(result.strOutput, HasSubstr(c.szFinding));
    EXPECT_THAT(result.strOutput,
                HasSubstr(c.nStatus == 0 ? "the service would start"
                                         : fmt::format("would end with status {} ", c.nStatus)));
    service.Launch();
    if (c.nStatus != 0) {
        EXPECT_EQ(service.Wait(), c.nStatus);
    } else {
        EXPECT_TRUE(WaitUntil(
            [&] { return service.Output().find("Start  81....\n") != std::string::npos; }));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Of, Check,
    testing::Values(
        ConfigCase{"AsItIs", "^", "", 0, "log.conf: the service would start (0 warnings)\n"},
        ConfigCase{"NoViewer", "PortFromViewer", "#$&", 52, ":1: error: PortFromViewer is missing"},
        ConfigCase{"EmptyClient", "(FromClient =).*", "$1", 55, ":3: error: PortFromClient is emp"},
        ConfigCase{"WrongCase", "nSTPort", "nStPort", 56, ":4: warning: 'nStPort' is not read;"},
        ConfigCase{"NoTimeout", "TimeoutSet =", "TimeoutSet", 53, ":5: warning: 'TimeoutSet 120'"},
        ConfigCase{"NoCount", "PidCount", ";$&", 60, "write 'PidCount = 3' in"},
        ConfigCase{"FirstOfTwo", "TimeoutSet = 120\nPidCount", "\n#", 53, "(2 errors, 0 warn"},
        ConfigCase{"Bom", "\\[PORT", "\xEF\xBB\xBF[PORT", 52, "without the byte order mark"},
        ConfigCase{"Comment", "PORT_CONFIG.", "$& ; x", 52, ":1: warning: '[PORT_CONFIG] ; x'"},
        ConfigCase{"NoFile", "^", "", 50, "log.conf: error: cannot be read (status 50): No such"},
        ConfigCase{"LongLine", "PortF", "#" + std::string(1022, '-') + "$&", 0,
                   ":2: warning: has 10"},
        ConfigCase{"JoinedName", "PORT_CONFIG.\n(P[^\n]*)", "PORT_]\nCONFIG$1\n[PORT_CONFIG]", 0,
                   ":2: warning: 'CONFIGPortFromViewer' of section [PORT_] is read as"},
        ConfigCase{"EmptiedLater", "PidCount = 3", "$&\nPidCount = ", 60,
                   ":6: warning: PidCount does not count: it is set again in line 7;"},
        ConfigCase{"TwiceShort", "PidCount = 3", "$&\nc=", 0, ":7: warning: 'c=' is not read"},
        ConfigCase{"NoNumber", "= 120", "= soon", 0, ":5: warning: TimeoutSet is 'soon', which"},
        ConfigCase{"BigPort", "(nSTPort =).*", "$1 70000", 0, ":4: warning: nSTPort is 70000, w"},
        ConfigCase{"FewRead", "Count = 3", "Count = 2", 0, ":13: warning: section [2] is not read"},
        ConfigCase{"ManyRead", "Count = 3", "Count = 120", 0, "no section [3] to [119]; write"},
        ConfigCase{"NoName", "APP = beta", "", 0, ":10: warning: client 1 has no APP: it is sk"},
        ConfigCase{"SamePort", "(\nL.*)\n(A.*)\n.1.\n.*", "$1\n$2\n[1]$1", 0, ":11: warning: UDP"},
        ConfigCase{"SameSection", "\\[1\\]", "[0]", 0, ":10: warning: section [0] is there in li"},
        ConfigCase{"Language", "\\[0\\]", "[local]\nLANGUAGE = english\n$&", 0,
                   ":8: warning: LAN"}),
    [](const auto& test) { return std::string(test.param.szName); });

TEST_F(Send, CompletionAndManualKnowEveryOption) {
    const std::string strScript = fmt::format(
        ". {}/tools/completion/tarvik-log.bash\n"
        "try() {{ COMP_WORDS=({} \"$@\") COMP_CWORD=$#; _tarvik_log; echo \"${{COMPREPLY[*]}}\"; "
        "}}\n"
        "try st; try show --cl; try send --client ''; try send --client m; try show --type = wa\n"
        "try receive -o s; try send --rate ''; try check lo\n"
        "for c in $(try ''); do [[ $c == -* ]] || echo $(try $c -); done >{}/options\n",
        TARVIK_SOURCE_DIR, TARVIK_LOG, m_strRoot);
    Write("/script", strScript);
    Run("--version && bash script");
    EXPECT_THAT(Lines(Read("/stdout")), ElementsAre(StartsWith("tarvik-log "), "stats", "--client",
                                                    "0 alpha 1 beta 2 my\\,\\ app", "my\\,\\ app",
                                                    "warning", "short syslog", "", "log"));
    std::string strManual = ReadWhole(std::string(TARVIK_SOURCE_DIR) + "/man/tarvik-log.1");
    strManual = std::regex_replace(strManual, std::regex("\\\\-"), "-");
    std::istringstream options(Read("/options"));
    int nOptions = 0;
    for (std::string strOption; options >> strOption; ++nOptions) {
        EXPECT_THAT(strManual, HasSubstr(strOption));
    }
    EXPECT_GT(nOptions, 40);
}

}  // namespace
