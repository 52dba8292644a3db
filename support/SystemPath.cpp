#include "support/SystemPath.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

std::string FindRoot() {
    const char* szRoot = std::getenv("TARVIK_ROOT");
    if (szRoot == nullptr || *szRoot == '\0') {
        return {};
    }
    // The service changes to "/" when it detaches, so the directory must not depend on where it
    // runs.
    std::error_code error;
    std::string strRoot = std::filesystem::absolute(szRoot, error).string();
    while (!strRoot.empty() && strRoot.back() == '/') {
        strRoot.pop_back();
    }
    return strRoot;
}

}  // namespace

std::string SystemPath(const char* szPath) {
    // It outlives static destruction.
    static const std::string* const pRoot = new std::string(FindRoot());
    return *pRoot + szPath;
}
