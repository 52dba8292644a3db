#include "fuzz/ServiceState.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

#include "core/CircleBuffer.h"
#include "core/MsgQueue.h"
#include "core/ThreadMsg.h"
#include "core/TimerService.h"
#include "fuzz/Check.h"
#include "support/SystemPath.h"
#include "support/UniqueFd.h"

namespace {

namespace fs = std::filesystem;

std::string MakeRoot() {
    const char* szMemory = "/dev/shm";
    std::string strRoot =
        fs::is_directory(szMemory) ? szMemory : fs::temp_directory_path().string();
    strRoot += "/tarvik-fuzz-XXXXXX";
    Check(mkdtemp(strRoot.data()) != nullptr, "there is room for a root");
    return strRoot;
}

void EmptyPipe(int nReadEnd) {
    CPipeReader reader;
    PipeMsg msg{};
    while (reader.Next(nReadEnd, msg)) {
        if (msg.id == MSG_QUEUE_ARRIVED) {
            g_MsgQueue.FreeMsg(static_cast<std::int32_t>(msg.wParam));
        }
    }
}

// What a message left that the script made up, or that came behind a quit message.
void EmptyQueue() {
    constexpr int kPasses = CMsgQueue::kSmallSlots / CMsgQueue::kSmallSlotsPerPass;
    for (int nPass = 0; nPass < kPasses && g_MsgQueue.GetSmallFree() < CMsgQueue::kSmallSlots;
         ++nPass) {
        g_MsgQueue.ExpireOld(std::numeric_limits<std::int64_t>::max());
    }
    Check(g_MsgQueue.GetSmallFree() == CMsgQueue::kSmallSlots, "no queue slot is lost");
}

}  // namespace

void PrepareService() {
    if (std::getenv("TARVIK_ROOT") == nullptr) {
        static const std::string* const pRoot = new std::string(MakeRoot());
        setenv("TARVIK_ROOT", pRoot->c_str(), 1);
        std::atexit([] { fs::remove_all(*pRoot); });
    }
    setenv("TZ", "UTC", 1);
    for (const char* szPath : {"/log", "/hislog", "/var/log"}) {
        fs::create_directories(RootPath(szPath));
    }
    const CUniqueFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    Check(dup2(null.Get(), STDOUT_FILENO) == STDOUT_FILENO, "standard output can be dropped");
    Check(CreateMsgqueue(), "there are pipes");
}

std::string RootPath(const std::string& strPath) {
    return SystemPath(strPath.c_str());
}

void PutFile(const std::string& strPath, const std::string& strContent) {
    const std::string strFile = RootPath(strPath);
    const auto Open = [&strFile] {
        return open(strFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    };
    CUniqueFd file(Open());
    if (!file.IsOpen()) {
        fs::create_directories(fs::path(strFile).parent_path());
        file.Reset(Open());
    }
    Check(write(file.Get(), strContent.data(), strContent.size()) ==
              static_cast<ssize_t>(strContent.size()),
          "the root takes files");
}

std::string GetFile(const std::string& strPath) {
    std::ostringstream content;
    content << std::ifstream(RootPath(strPath), std::ios::binary).rdbuf();
    return content.str();
}

void ResetService(std::uint32_t nRingBytes) {
    for (const int nReadEnd : {g_nCmdThreadID[0], g_nLogRecvThreadID[0], g_nMsgPipe[0]}) {
        EmptyPipe(nReadEnd);
    }
    for (const auto& nEnds : g_nUploadThreadID) {
        EmptyPipe(nEnds[0]);
    }
    EmptyQueue();
    // Its indices stay where they are unless they lie outside of the new storage.
    Check(g_CircleBuffer.Init(1) == 1 && g_CircleBuffer.Init(nRingBytes) == 1, "there is memory");
    g_TimerService.Tick(0);
}
