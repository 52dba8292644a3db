#include "transfer/ConsoleDialog.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kPrompt = "\r\nPassword:";
constexpr std::string_view kBusy = "you.";
constexpr std::string_view kListHead = "num1 defines as follow:\r\n";
constexpr std::string_view kSetReply =
    "\r\nCommand parse success!\r\nPress 'x' to quit send log. \r\n";
constexpr std::string_view kErrorHead = "!!!Command error!!!";
constexpr std::size_t kMostWaiting = 65536;  // of what has no end yet
constexpr std::size_t kStampBytes = 19;      // "2026-11-22 14:05:09"

// Adds the clients of a line "alpha=0,beta=1,". A name may have commas and equals signs: an entry
// ends behind a number that a comma or the end of the line follows.
void AddClients(std::string_view strLine, std::vector<ConsoleClient>& clients) {
    std::size_t nBegin = 0;
    for (std::size_t n = 0; n < strLine.size(); ++n) {
        if (strLine[n] != '=') {
            continue;
        }
        std::int32_t nIndex = 0;
        const char* const pEnd = strLine.data() + strLine.size();
        const auto [pRest, error] = std::from_chars(strLine.data() + n + 1, pEnd, nIndex);
        if (error == std::errc() && (pRest == pEnd || *pRest == ',')) {
            clients.push_back({std::string(strLine.substr(nBegin, n - nBegin)), nIndex});
            nBegin = static_cast<std::size_t>(pRest - strLine.data()) + 1;
        }
    }
}

// The clients of a help text and the bytes that it has, once all of it came. Every line of the list
// but the last has four clients and no comma at its end.
struct ClientList {
    std::vector<ConsoleClient> clients;
    std::size_t nBytes;
};

std::optional<ClientList> ReadHelp(std::string_view strText) {
    ClientList list{};
    const std::size_t nHead = strText.find(kListHead);
    if (nHead == std::string_view::npos) {
        return {};
    }
    for (std::size_t nBegin = nHead + kListHead.size();;) {
        const std::size_t nEnd = strText.find(kLineEnd, nBegin);
        if (nEnd == std::string_view::npos) {
            return {};
        }
        std::string_view strLine = strText.substr(nBegin, nEnd - nBegin);
        strLine.remove_prefix(std::min(strLine.find_first_not_of('\t'), strLine.size()));
        AddClients(strLine, list.clients);
        nBegin = nEnd + kLineEnd.size();
        if (strLine.empty() || strLine.back() == ',') {
            list.nBytes = nBegin;
            return list;
        }
    }
}

}  // namespace

void CConsoleDialog::Take(std::string_view strBytes) {
    m_strWaiting += strBytes;
    while (Step()) {
    }
    if (m_strWaiting.size() > kMostWaiting) {
        Fail("what came has no end", false);
    }
}

// One step with what waits; false when more has to come first.
bool CConsoleDialog::Step() {
    switch (m_eState) {
        case EState::kWelcome:
            return StepWelcome();
        case EState::kLogin:
            return StepHelp();
        case EState::kSet:
            return StepSet();
        case EState::kRelay:
            return StepRelay();
        case EState::kLeaving:
            return StepLeaving();
        default:
            m_strWaiting.clear();
            return false;
    }
}

bool CConsoleDialog::StepWelcome() {
    const std::size_t nPrompt = m_strWaiting.find(kPrompt);
    if (nPrompt == std::string::npos) {
        return false;
    }
    m_strWaiting.clear();
    m_eState = EState::kLogin;
    m_Events.fnSend(m_Wishes.strPassword + std::string(kLineEnd));
    return true;
}

bool CConsoleDialog::StepHelp() {
    const auto list = ReadHelp(m_strWaiting);
    if (!list) {
        return false;
    }
    m_strWaiting.erase(0, list->nBytes);
    if (!m_Wishes.strClient.empty()) {
        Pick(list->clients);
        return true;
    }
    m_eState = EState::kDone;
    m_Events.fnSend("q\r\n");
    m_Events.fnClients(list->clients);
    return true;
}

void CConsoleDialog::Pick(const std::vector<ConsoleClient>& clients) {
    const std::string& strWanted = m_Wishes.strClient;
    auto it = std::find_if(clients.begin(), clients.end(), [&](const ConsoleClient& client) {
        return client.strName == strWanted;
    });
    if (it == clients.end()) {
        it = std::find_if(clients.begin(), clients.end(), [&](const ConsoleClient& client) {
            return std::to_string(client.nIndex) == strWanted;
        });
    }
    if (it == clients.end()) {
        std::vector<std::string> names;
        names.reserve(clients.size());
        for (const ConsoleClient& client : clients) {
            names.push_back(client.strName);
        }
        Fail(fmt::format("no client '{}'; there are: {}", strWanted, fmt::join(names, ", ")),
             false);
        return;
    }
    m_strPicked = it->strName;
    m_eState = EState::kSet;
    m_Events.fnSend(fmt::format("set {} {}\r\n", it->nIndex, m_Wishes.wValue));
}

bool CConsoleDialog::StepSet() {
    if (m_strWaiting.find(kErrorHead) != std::string::npos) {
        Fail("the service refused the client", false);
        return false;
    }
    const std::size_t nReply = m_strWaiting.find(kSetReply);
    if (nReply == std::string::npos) {
        return false;
    }
    m_strWaiting.erase(0, nReply + kSetReply.size());
    m_eState = EState::kRelay;
    return true;
}

bool CConsoleDialog::StepRelay() {
    const std::size_t nEnd = m_strWaiting.find(kLineEnd);
    if (nEnd == std::string::npos) {
        return false;
    }
    HandLine(std::string_view(m_strWaiting).substr(0, nEnd));
    m_strWaiting.erase(0, nEnd + kLineEnd.size());
    return true;
}

// What does not look like a record is handed on as a text: a record's text may have line ends.
void CConsoleDialog::HandLine(std::string_view strLine) {
    const std::string strHead = fmt::format("[{}] [", m_strPicked);
    const std::size_t nText = strHead.size() + kStampBytes + 3;
    if (strLine.size() > nText && strLine.substr(0, strHead.size()) == strHead &&
        strLine.substr(nText - 3, 3) == "] [") {
        const std::size_t nEnd = strLine.back() == ']' ? strLine.size() - 1 : strLine.size();
        m_Events.fnLine({m_strPicked, strLine.substr(strHead.size(), kStampBytes),
                         strLine.substr(nText, nEnd - nText)});
    } else {
        m_Events.fnLine({m_strPicked, "", strLine});
    }
}

bool CConsoleDialog::StepLeaving() {
    if (!ReadHelp(m_strWaiting)) {
        return false;
    }
    m_eState = EState::kDone;
    m_Events.fnSend("q\r\n");
    return true;
}

void CConsoleDialog::Leave() {
    if (m_eState == EState::kRelay) {
        m_eState = EState::kLeaving;
        m_Events.fnSend("x\r\n");
    } else {
        m_eState = EState::kDone;
    }
}

void CConsoleDialog::OnClosed() {
    switch (m_eState) {
        case EState::kDone:
        case EState::kFailed:
            return;
        case EState::kLeaving:
            m_eState = EState::kDone;
            return;
        case EState::kWelcome:
            Fail(m_strWaiting == kBusy ? "somebody else is at the console" : "connection closed",
                 true);
            return;
        case EState::kLogin:
            Fail("password refused", false);
            return;
        default:
            Fail("connection lost", true);
    }
}

void CConsoleDialog::Fail(const std::string& strReason, bool bMayPass) {
    m_eState = EState::kFailed;
    m_strReason = strReason;
    m_bMayPass = bMayPass;
}
