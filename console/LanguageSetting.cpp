// The display language: read from the configuration file, stored there, announced to the log
// clients.
#include <unistd.h>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "core/ConfigKeys.h"
#include "core/ServiceFiles.h"
#include "core/Trace.h"
#include "support/IniFile.h"
#include "support/ReplaceFile.h"
#include "support/ShellCommand.h"
#include "support/Socket.h"
#include "support/SystemPath.h"

namespace {

// The persistent configuration area, where the file has the same path again.
constexpr const char* kPersistentArea = "/config";

constexpr const char* kTexts[] = {"Chinese", "English"};  // by language number
static_assert(LANGUAGE_CHINESE == 0 && LANGUAGE_ENGLISH == 1);

std::string PersistentCopy() {
    return SystemPath(kPersistentArea) + kConfigurationFile;
}

std::string CopyCommand() {
    return "cp " + QuoteForShell(SystemPath(kConfigurationFile)) + " " +
           QuoteForShell(PersistentCopy()) + " ; sync";
}

}  // namespace

int CCommunicatThread::SaveLanguageAndNotify(std::uint8_t byLanguage,
                                             const std::atomic<std::int32_t>* pGiveUp) {
    if (SaveLanguageSetting(byLanguage, pGiveUp) != 0) {
        Trace("CommunicatThread SaveLanguageAndNotify failed to SaveLanguageSetting.\n");
        return -1;
    }
    if (NotifyLanguageChanged(MakeLanguageFrame(byLanguage)) != 0) {
        Trace("CommunicatThread SaveLanguageAndNotify failed to NotifyLanguageChanged\n");
        return -3;
    }
    return 0;
}

int CCommunicatThread::GetLanguageSetting(std::uint8_t& byLanguage) {
    byLanguage = LANGUAGE_CHINESE;
    CIniFile file;
    if (!LoadConfiguration(file)) {
        Trace("CommunicatThread GetLanguageSetting failed to load file log.conf\n");
        return 20;
    }
    if (file.GetValue(kLocalSection, kLanguageKey) == kTexts[LANGUAGE_ENGLISH]) {
        byLanguage = LANGUAGE_ENGLISH;
    }
    return 0;
}

bool CCommunicatThread::LoadConfiguration(CIniFile& file) {
    const CLockGuard guard(m_Lock);
    return file.Load(SystemPath(kConfigurationFile));
}

int CCommunicatThread::SaveLanguageSetting(std::uint8_t byLanguage,
                                           const std::atomic<std::int32_t>* pGiveUp) {
    if (byLanguage > LANGUAGE_ENGLISH) {
        return 10;
    }
    const int nResult = StoreLanguage(kTexts[byLanguage], pGiveUp);
    if (nResult == 20) {
        Trace("CommunicatThread SaveLanguageSetting load from file log.conf failed.\n");
    } else if (nResult == 30) {
        Trace("CommunicatThread SaveLanguageSetting  LANGUAGE save to log.conf failed.\n");
    }
    return nResult;
}

// Stores the text and has it copied, one thread at a time; the results of SaveLanguageSetting. Who
// reads the language does not wait for the copy, which may hang.
int CCommunicatThread::StoreLanguage(const char* szText, const std::atomic<std::int32_t>* pGiveUp) {
    const CLockGuard guard(m_LanguageWriters);
    if (IsStored(szText)) {
        return 0;
    }
    const int nResult = RewriteConfiguration(szText);
    if (nResult == 0) {
        // A copy that fails is made up for by the next change.
        RunShellCommand(CopyCommand(), pGiveUp);
    }
    return nResult;
}

// Whether the language is set already and was copied once: receivers that set it again and again
// then cost no flush of the disk.
bool CCommunicatThread::IsStored(const char* szText) {
    CIniFile file;
    return access(PersistentCopy().c_str(), F_OK) == 0 && LoadConfiguration(file) &&
           file.GetValue(kLocalSection, kLanguageKey) == szText;
}

int CCommunicatThread::RewriteConfiguration(const char* szText) {
    const CLockGuard guard(m_Lock);
    const std::string strPath = SystemPath(kConfigurationFile);
    CIniFile file;
    if (!file.Load(strPath)) {
        return 20;
    }
    file.SetValue(kLocalSection, kLanguageKey, szText);
    return ReplaceFile(strPath, [&](const std::string& strNew) { return file.Save(strNew); }) ? 0
                                                                                              : 30;
}

int CCommunicatThread::NotifyLanguageChanged(const LogcCtrlFrame& frame) {
    for (const LogClientEntry& entry : m_listLogc) {
        if (UdpSend(kLoopback, static_cast<std::uint16_t>(entry.nPort), &frame,
                    static_cast<int>(frame.dwLength)) != 0) {
            Trace("Send real time log flag to log client failed!\n");
            return -1;
        }
    }
    return 0;
}
