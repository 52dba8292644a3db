// tarvik-log send, what check foretells of the real service, and that completion and the manual
// know every option.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <future>
#include <nlohmann/json.hpp>
#include <regex>

#include "peers/LogClient.h"
#include "peers/Service.h"
#include "peers/Telnet.h"
#include "reading/RecordFormat.h"
#include "reading/RecordType.h"
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

    // What was stored, each as a line without its time.
    std::vector<std::string> Stored(const CService& service) const {
        const std::string strFile = service.Path("/log/" + service.List("/log").front());
        return Lines(Run("show -o csv " + strFile + " | cut -d , -f 2-").strOutput);
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
    ASSERT_TRUE(WaitUntil([&] { return Stored(service).size() == 7; }));
    EXPECT_THAT(Stored(service),
                ElementsAre("client,name,type,severity,text\r", "1,beta,2,error,--stats show\r",
                            "0,alpha,3,debug,one\r", "0,alpha,3,debug,\r",
                            "0,alpha,3,debug," + std::string(278, 'x') + "\r",
                            "0,alpha,3,debug,\xC3\xA9\r", "0,alpha,3,debug,last\r"));
}

TEST_F(Send, RealTimeLinesGoOutWhileTheConsoleWantsThem) {
    CService service(TARVIK_LOGD);
    ASSERT_TRUE(service.Start());
    const std::string strInput = m_strRoot + "/input";
    ASSERT_EQ(mkfifo(strInput.c_str(), 0600), 0);
    auto status = std::async(std::launch::async, [&] {
        return RunSend(service, "--client beta --realtime <input").nStatus;
    });
    CUniqueFd input;
    ASSERT_TRUE(WaitUntil([&] {  // until it is read; without a reader, opening would wait for ever
        input = CUniqueFd(open(strInput.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return input.IsOpen() ||
               status.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }));
    ASSERT_TRUE(input.IsOpen());
    const auto type = [&](const std::string& strLine) {
        EXPECT_GT(write(input.Get(), strLine.data(), strLine.size()), 0);
    };
    type("early\n");
    int nUnread = 1;
    EXPECT_TRUE(WaitUntil([&] { return ioctl(input.Get(), FIONREAD, &nUnread) == 0 && !nUnread; }));
    CTelnet console(service.ConsolePort());
    console.LogIn();
    console.Send("set 1 5\r\n");
    EXPECT_TRUE(SaysSoon("real-time logging on, value 5\n"));
    type("live\n");
    EXPECT_THAT(console.ReadUntil("[live]"),
                testing::AllOf(HasSubstr("[live]"), testing::Not(HasSubstr("early"))));
    const LogcCtrlFrame frame = MakeLanguageFrame(LANGUAGE_ENGLISH);
    CLogClient(service.ControlPort(1)).SendBytes(&frame, kLanguageFrameBytes);
    EXPECT_TRUE(SaysSoon("language English\n"));
    console.Send("x\r\n");
    EXPECT_TRUE(SaysSoon("real-time logging off\n"));
    input.Reset();
    EXPECT_EQ(status.get(), 0);
}

TEST_F(Send, CheckForetellsHowTheServiceEnds) {
    const struct {
        const char* szFind;  // in the default configuration
        std::string strReplace;
        int nStatus;  // 0: starts
        const char* szFinding;
    } cases[] = {{"^", "", 0, "log.conf: the service would start (0 warnings)\n"},
                 {"PortFromViewer", "#$&", 52, ":1: error: PortFromViewer is missing"},
                 {"(FromClient =).*", "$1", 55, ":3: error: PortFromClient is emp"},
                 {"nSTPort", "nStPort", 56, ":4: warning: 'nStPort' is not read;"},
                 {"TimeoutSet =", "TimeoutSet", 53, ":5: warning: 'TimeoutSet 120'"},
                 {"PidCount", ";$&", 60, "write 'PidCount = 3' in"},
                 {"\\[PORT", "\xEF\xBB\xBF[PORT", 52, "without the byte order mark"},
                 {"PORT_CONFIG.", "$& ; x", 52, ":1: warning: '[PORT_CONFIG] ; x'"},
                 {"^", "", 50, "log.conf: error: cannot be read (status 50): No such"},
                 {"PortF", "#" + std::string(1022, '-') + "$&", 0, ":2: warning: has 10"},
                 {"PORT_CONFIG.\n(P[^\n]*)", "PORT_]\nCONFIG$1\n[PORT_CONFIG]", 0,
                  ":2: warning: 'CONFIGPortFromViewer' of section [PORT_] is read as"},
                 {"PidCount = 3", "$&\nPidCount = ", 60,
                  ":6: warning: PidCount does not count: it is set again in line 7;"},
                 {"Set = 120", "Set = soon", 0, ":5: warning: TimeoutSet is 'soon', which"},
                 {"(nSTPort =).*", "$1 70000", 0, ":4: warning: nSTPort is 70000, w"},
                 {"Count = 3", "Count = 2", 0, ":13: warning: section [2] is not read"},
                 {"Count = 3", "Count = 120", 0, "no section [3] to [119]; write"},
                 {"APP = beta", "", 0, ":10: warning: client 1 has no APP: it is sk"},
                 {"(\nL.*)\n(A.*)\n.1.\n.*", "$1\n$2\n[1]$1", 0, ":11: warning: UDP"},
                 {"\\[1\\]", "[0]", 0, ":10: warning: section [0] is there in li"},
                 {"\\[0\\]", "[local]\nLANGUAGE = english\n$&", 0, ":8: warning: LAN"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.szFinding);
        CService service(TARVIK_LOGD);
        const std::string strPath = "/etc/tarvik/log/log.conf";
        const std::string strConfig =
            std::regex_replace(service.DefaultConfiguration(), std::regex(c.szFind), c.strReplace,
                               std::regex_constants::format_first_only);
        EXPECT_EQ(strConfig == service.DefaultConfiguration(), *c.szFind == '^');
        service.WriteFile(strPath, strConfig);
        if (c.nStatus == 50) {
            std::filesystem::remove(service.Path(strPath));
        }
        const Result result = Run("check " + service.Path(strPath));
        EXPECT_EQ(result.nStatus, c.nStatus);
        EXPECT_THAT(result.strOutput, HasSubstr(c.szFinding));
        EXPECT_THAT(
            result.strOutput,
            HasSubstr(c.nStatus == 0 ? "the service would start"
                                     : fmt::format("would end with status {} ", c.nStatus)));
        EXPECT_EQ(service.Start(), c.nStatus == 0);
        EXPECT_EQ(c.nStatus == 0 ? service.Stop() : service.Wait(), c.nStatus);
    }
}

TEST_F(Send, CompletionOffersTheTypesAndFormsThatThereAre) {
    Write("/script",
          fmt::format(". '{}/tools/completion/tarvik-log.bash'\n"
                      "try() {{ COMP_WORDS=(tarvik-log \"$@\" '') COMP_CWORD=$(($# + 1)); "
                      "_tarvik_log; printf '%s, ' \"${{COMPREPLY[@]}}\"; echo; }}\n"
                      "try show --type; try show -o; try receive -o\n",
                      TARVIK_SOURCE_DIR));
    Run("--version && bash script");
    const auto Line = [](EFormUse eUse) {
        return fmt::format("{}, ", fmt::join(RecordFormNames(eUse), ", "));
    };
    EXPECT_THAT(Lines(Read("/stdout")),
                ElementsAre(StartsWith("tarvik-log "), RecordTypeNames() + ", ",
                            Line(EFormUse::kShow), Line(EFormUse::kLive)));
}

TEST_F(Send, CompletionAndManualKnowEveryOption) {
    Write("/script",
          fmt::format(
              ". '{}/tools/completion/tarvik-log.bash'\n"
              "try() {{ COMP_WORDS=('{}' \"$@\") COMP_CWORD=$#; _tarvik_log; echo "
              "\"${{COMPREPLY[*]}}\"; "
              "}}\n"
              "try st; try show --cl; try send --client ''; try send --client m; try show "
              "--type = wa\n"
              "try receive -o s; try send --rate ''; try check lo\n"
              "for c in $(try ''); do [[ $c == -* ]] || echo $(try $c -); done >'{}/options'\n",
              TARVIK_SOURCE_DIR, TARVIK_LOG, m_strRoot));
    Run("--version && bash script");
    EXPECT_THAT(Lines(Read("/stdout")), ElementsAre(StartsWith("tarvik-log "), "stats", "--client",
                                                    "0 alpha 1 beta 2 my\\,\\ app", "my\\,\\ app",
                                                    "warning", "short syslog", "", "log"));
    std::string strManual = ReadWhole(std::string(TARVIK_SOURCE_DIR) + "/man/tarvik-log.1");
    strManual = std::regex_replace(strManual, std::regex("\\\\-"), "-");
    std::istringstream options(Read("/options"));
    EXPECT_GT(Lines(options.str()).size(), 6U);
    for (std::string strOption; options >> strOption;) {
        EXPECT_THAT(strManual, HasSubstr(strOption));
    }
}

}  // namespace
