// Shell commands start with a clean slate, whoever starts them, and can be left alone.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "core/Process.h"
#include "peers/TempDir.h"
#include "support/ShellCommand.h"

namespace {

class ShellCommandTest : public testing::Test {
protected:
    std::string ReadOut() const {
        std::string strText;
        std::getline(std::ifstream(m_strDirectory + "/out"), strText, '\0');
        return strText;
    }

    const CTempDir m_directory;
    const std::string& m_strDirectory = m_directory.Path();
};

TEST_F(ShellCommandTest, GivesTheFirstLine) {
    const auto Line = [](const char* szCommand) {
        std::string strLine = "before";
        return ReadShellLine(szCommand, 5, strLine) ? strLine : "not started";
    };
    EXPECT_EQ(Line("echo 80; echo 81"), "80\n");
    EXPECT_EQ(Line("yes 123456789"), "12345");  // and the command ends
    EXPECT_EQ(Line("printf 12"), "12");
    EXPECT_EQ(Line("exit 3"), "");
}

// The service as it runs: SIGPIPE and SIGCHLD ignored, SIGTERM blocked in its workers. The shell
// signals itself, because some shells unblock everything in what they start.
TEST_F(ShellCommandTest, SignalsEndTheCommandOfAWorker) {
    const auto Run = [](void* pCommand) -> void* {
        return RunShellCommand(*static_cast<std::string*>(pCommand)) == 0 ? pCommand : nullptr;
    };
    const auto Read = [](void* pCommand) -> void* {
        std::string strLine;
        return ReadShellLine(*static_cast<std::string*>(pCommand), 80, strLine) ? pCommand
                                                                                : nullptr;
    };
    for (const auto pfnHandler : {SIG_IGN, SIG_DFL}) {
        std::signal(SIGPIPE, pfnHandler);
        std::signal(SIGCHLD, pfnHandler);
        for (const char* szSignal : {"PIPE", "TERM"}) {
            for (void* (*const pfnBody)(void*) : {+Run, +Read}) {
                std::string strCommand = "cd " + m_strDirectory + "; echo begun >out; kill -" +
                                         szSignal + " $$; echo lives >>out";
                pthread_t thread{};
                ASSERT_EQ(StartThread(thread, "test.worker", pfnBody, &strCommand), 0);
                void* pResult = nullptr;
                pthread_join(thread, &pResult);
                EXPECT_EQ(pResult, &strCommand);
                EXPECT_EQ(ReadOut(), "begun\n") << szSignal;
            }
        }
    }
}

TEST_F(ShellCommandTest, ACommandThatIsGivenUpRunsOn) {
    const auto WaitFor = [](const auto& condition) {
        for (int nTry = 0; nTry < 5000 && !condition(); ++nTry) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    };
    std::atomic<std::int32_t> nGiveUp{0};
    std::thread quitter([&] {
        WaitFor([this] { return std::filesystem::exists(m_strDirectory + "/begun"); });
        nGiveUp = 1;
    });
    const std::string strCommand =
        "cd " + m_strDirectory +
        "; >begun; n=0; while [ ! -e go ] && [ $n -lt 1000 ]; do n=$((n+1)); sleep 0.01; done"
        "; echo on >out";
    EXPECT_EQ(RunShellCommand(strCommand, &nGiveUp), 0);
    quitter.join();
    EXPECT_EQ(ReadOut(), "");
    std::ofstream(m_strDirectory + "/go") << "";
    WaitFor([this] { return ReadOut() == "on\n"; });
    EXPECT_EQ(ReadOut(), "on\n");
}

}  // namespace
