#include "transfer/SocketOwner.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <pwd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "reading/TextRepair.h"

namespace fs = std::filesystem;

namespace {

struct SocketEntry {
    SocketEnd local;
    SocketEnd remote;
    unsigned nUser = 0;
    std::string strInode;  // decimal
};

// "0100007F:07BF": the address as the kernel keeps it, in network byte order.
SocketEnd ParseEnd(const std::string& strText) {
    unsigned nAddress = 0;
    unsigned nPort = 0;
    char cColon = '\0';
    std::istringstream stream(strText);
    stream >> std::hex >> nAddress >> cColon >> nPort;
    return {ntohl(nAddress), static_cast<std::uint16_t>(nPort)};
}

std::optional<SocketEntry> ParseEntry(const std::string& strLine) {
    std::istringstream stream(strLine);
    std::string strLocal;
    std::string strRemote;
    std::string strSkipped;
    SocketEntry entry;
    stream >> strSkipped >> strLocal >> strRemote;
    for (int nWord = 0; nWord < 4; ++nWord) {  // state, queues, timer, retransmissions
        stream >> strSkipped;
    }
    stream >> entry.nUser >> strSkipped >> entry.strInode;
    if (!stream) {
        return std::nullopt;
    }
    entry.local = ParseEnd(strLocal);
    entry.remote = ParseEnd(strRemote);
    return entry;
}

std::optional<SocketEntry> FindEntry(const SocketEnd& local, const SocketEnd& remote) {
    std::ifstream table("/proc/net/tcp");
    for (std::string strLine; std::getline(table, strLine);) {
        auto entry = ParseEntry(strLine);
        if (entry && entry->local == local && entry->remote == remote) {
            return entry;
        }
    }
    return std::nullopt;
}

bool HoldsSocket(const fs::path& process, const std::string& strLink) {
    std::error_code ignored;  // no matter why it cannot be looked at
    for (fs::directory_iterator it(process / "fd", ignored), end; !ignored && it != end;
         it.increment(ignored)) {
        std::error_code gone;
        if (fs::read_symlink(it->path(), gone) == strLink) {
            return true;
        }
    }
    return false;
}

// The pid of a process that has the socket; empty: none that may be looked at.
std::string FindProcess(const std::string& strInode) {
    const std::string strLink = fmt::format("socket:[{}]", strInode);
    std::error_code ignored;
    for (fs::directory_iterator it("/proc", ignored), end; !ignored && it != end;
         it.increment(ignored)) {
        std::string strName = it->path().filename();
        if (std::all_of(strName.begin(), strName.end(),
                        [](char c) { return c >= '0' && c <= '9'; }) &&
            HoldsSocket(it->path(), strLink)) {
            return strName;
        }
    }
    return {};
}

std::string UserName(unsigned nUser) {
    const passwd* const pUser = getpwuid(nUser);
    return pUser == nullptr ? fmt::format("{}", nUser) : pUser->pw_name;
}

}  // namespace

std::string SocketOwner(const SocketEnd& local, const SocketEnd& remote) {
    const auto entry = FindEntry(local, remote);
    if (!entry) {
        return {};
    }
    std::string strUser = "user " + UserName(entry->nUser);
    const std::string strPid = FindProcess(entry->strInode);
    if (strPid.empty()) {
        return strUser;
    }
    std::string strProgram;
    std::getline(std::ifstream("/proc/" + strPid + "/comm"), strProgram);
    return fmt::format("{}, pid {}, {}", Shown(strProgram), strPid, strUser);
}
