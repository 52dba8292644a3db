#include "core/ShellCommand.h"

#include <cstdio>
#include <string_view>

int RunShellCommand(const std::string& strCommand) {
    std::FILE* pStream = popen(strCommand.c_str(), "re");
    if (pStream == nullptr) {
        return 5;
    }
    pclose(pStream);  // with SIGCHLD ignored there is no exit status to look at
    return 0;
}

std::string QuoteForShell(const std::string& strPath) {
    constexpr std::string_view kPlain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-";
    if (!strPath.empty() && strPath.find_first_not_of(kPlain) == std::string::npos) {
        return strPath;
    }
    std::string strQuoted = "'";
    for (const char c : strPath) {
        if (c == '\'') {
            strQuoted += "'\\''";
        } else {
            strQuoted += c;
        }
    }
    return strQuoted + "'";
}
