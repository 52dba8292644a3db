// What the telnet client says and is told: welcome, login, commands.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "console/CommunicatThread.h"
#include "console/LogcCtrlFrame.h"
#include "console/SetCommand.h"
#include "core/Progress.h"
#include "core/Trace.h"
#include "support/ShellCommand.h"
#include "support/SystemPath.h"

namespace {

constexpr const char* kHelpHead =
    "\r\nSupport Command as following:\r\n?\t\thelp\r\nq/Q:\t\tQuit the telnet\r\n"
    "set num1 num2\tnum2 must between 1 and 65535,num1 defines as follow:\r\n\t\t";
constexpr const char* kErrorHead = "\r\n!!!Command error!!!\r\n";
constexpr const char* kSetReply = "\r\nCommand parse success!\r\nPress 'x' to quit send log. \r\n";
constexpr const char* kBannerTail = "\r\n\r\nWelcome tarvik realtime log debug !\r\nPassword:";

constexpr std::string_view kPassword = "quietharbor";

constexpr const char* kVersionFile = "/app/appversion";
constexpr std::size_t kVersionMaxBytes = 102400;  // more could not be queued as one text anyway
constexpr const char* kWebServerConf = "/etc/boa/boa.conf";

constexpr int kLinePieceBytes = 80;  // of one fgets, with the NUL
constexpr int kClientsPerHelpLine = 4;

std::string ReadVersions() {
    std::FILE* pFile = std::fopen(SystemPath(kVersionFile).c_str(), "re");
    if (pFile == nullptr) {
        Trace("DoWelcome fopen version file error.\n", "DoWelcome");
        return " Cannot read version file to get programs' version.\r\n";
    }
    std::string strText;
    char szPiece[kLinePieceBytes];
    while (strText.size() <= kVersionMaxBytes &&
           std::fgets(szPiece, kLinePieceBytes, pFile) != nullptr) {
        strText += szPiece;
        strText += "\r\n";
    }
    std::fclose(pFile);
    return strText;
}

std::string AskWebServerPort() {
    const std::string strCommand =
        "cat " + QuoteForShell(SystemPath(kWebServerConf)) + " |grep '^Port' | awk '{print $2}' ";
    std::string strLine;
    if (!ReadShellLine(strCommand, kLinePieceBytes - 1, strLine)) {
        Trace("DoWelcome popen Shell command failed.\n", "DoWelcome");
        return "Cannot get WebServer's listen port.\r\n";
    }
    // What is shown ends where a text of characters does.
    return "WebServer Listen Port=" + strLine.substr(0, strLine.find('\0')) + "\r\n";
}

}  // namespace

std::string CCommunicatThread::BuildHelpText() const {
    std::string strText = kHelpHead;
    int nShown = 0;
    for (const LogClientEntry& entry : m_listLogc) {
        strText.append(entry.szAppName, strnlen(entry.szAppName, sizeof(entry.szAppName)));
        strText += '=';
        strText += std::to_string(entry.nIndex);
        strText += ++nShown % kClientsPerHelpLine == 0 ? "\r\n\t\t" : ",";
    }
    return strText + "\r\n";
}

int CCommunicatThread::DoWelcome() {
    Progress("CommunicatThread DoWelcome()....\n");
    if (m_nConnSocket < 0) {
        Trace("CCommunicatThread DoWelcome no socket.\n");
        return -1;
    }
    if (m_nStatus != WAIT_CONNECT) {
        Trace("CCommunicatThread DoWelcome state error.\n");
        return -1;
    }
    std::string strWelcome = ReadVersions();
    strWelcome += AskWebServerPort();
    strWelcome += kBannerTail;
    if (TcpSend(strWelcome) != 0) {
        Trace("CCommunicatThread DoWelcome TcpSend failed.\n");
        return -1;
    }
    FD_SET(m_nConnSocket, &m_fdRead);
    m_nStatus = WAIT_LOGIN;
    Progress("CommunicatThread DoWelcome() success....\n");
    return 0;
}

int CCommunicatThread::ParseClientSent() {
    switch (m_nStatus.load()) {
        case WAIT_LOGIN:
            return ParseLogin();
        case WAIT_SEND_COMMAND:
            return ParseCommand();
        case SENDING_REAL_TIME_LOG:
            return ParseDuringRelay();
        default:
            Trace("CCommunicatThread ParseClientSent() status error.\n");
            return -1;
    }
}

int CCommunicatThread::ParseLogin() {
    const int nPos = m_pRecvBuff->FindCrLf();
    if (nPos == 0) {
        Trace("Find cmd at the beginning...\n", "ParseClientSent");
        return -1;
    }
    if (nPos < 0) {
        return AwaitMore(
            "CCommunicatThread ParseClientSent()  before DoLogin() to many unuseful data...\n");
    }
    Progress("WAIT_LOGIN Found  Login Password success.,pos=%d\r\n", nPos);
    if (DoLogin(TakeLine(nPos)) != 0) {
        return -1;
    }
    Progress("DoLogin() success.\n");
    return 0;
}

int CCommunicatThread::ParseCommand() {
    const int nPos = m_pRecvBuff->FindCrLf();
    if (nPos < 0) {
        return AwaitMore(
            "CCommunicatThread ParseClientSent()  before DoSendRealTimeLogCmd() to many unuseful "
            "data...\n");
    }
    if (nPos > 0) {
        Progress("WAIT_SEND_COMMAND found Cmd success.pos=%d\n", nPos);
        return DoSendRealTimeLogCmd(TakeLine(nPos)) == 0 ? 0 : -1;
    }
    Trace("receive cmd at beginning...\n", "ParseClientSent");
    m_pRecvBuff->Reset();
    if (TcpSend(BuildHelpText()) != 0) {
        Trace("ParseClientSent TcpSend 0 failed.\n", "ParseClientSent");
        return -1;
    }
    return 0;
}

int CCommunicatThread::ParseDuringRelay() {
    const int nPos = m_pRecvBuff->FindX();
    m_pRecvBuff->Reset();
    if (nPos < 0) {
        return 0;
    }
    Progress("SENDING_REAL_TIME_LOG  found x/X,will close logc send.\n");
    return DoExitSendRealTimeLog() == 0 ? 0 : -1;
}

// No line end yet: 0 while one can still come, else -1.
int CCommunicatThread::AwaitMore(const char* szTraceWhenFull) const {
    if (m_pRecvBuff->GetFree() > 0) {
        return 0;
    }
    Trace(szTraceWhenFull, "ParseClientSent");
    return -1;
}

// The first nLen bytes received. Everything behind them is dropped: one line is acted on at a time.
std::string CCommunicatThread::TakeLine(int nLen) {
    std::string strLine(static_cast<std::size_t>(nLen), '\0');
    (void)m_pRecvBuff->Peek(strLine.data(), nLen);  // the caller found nLen bytes there
    m_pRecvBuff->Reset();
    return strLine;
}

int CCommunicatThread::DoLogin(const std::string& strPassword) {
    Progress("DoLogin() ...Password=%s.\n", strPassword.c_str());
    if (m_nConnSocket < 0 || m_nStatus != WAIT_LOGIN) {
        Trace("CCommunicatThread DoLogin no  socket or state error. \n");
        return -1;
    }
    if (strPassword.empty()) {
        Trace("DoLogin pPassword UnMatch(no password).\n");
        return -1;
    }
    if (strPassword.size() != kPassword.size()) {
        Trace("DoLogin Password UnMatch(length).\n");
        return -1;
    }
    if (strPassword != kPassword) {
        Trace("DoLogin Password UnMatch.\n");
        return -1;
    }
    if (TcpSend(BuildHelpText()) != 0) {
        Trace("DoLogin TcpSend failed.\n");
        return -1;
    }
    m_nStatus = WAIT_SEND_COMMAND;
    return 0;
}

int CCommunicatThread::DoSendRealTimeLogCmd(const std::string& strCmd) {
    if (m_nConnSocket < 0 || m_nStatus != WAIT_SEND_COMMAND) {
        Trace("CCommunicatThread DoSendRealTimeLogCmd no  socket or state error. \n");
        return -1;
    }
    if (strCmd.empty()) {
        Trace("DoSendRealTimeLogCmd no cmd.\n");
        return -1;
    }
    Progress("DoSendRealTimeLogCmd...cmd=%s\n", strCmd.c_str());
    return strCmd.size() == 1 ? DoKeyCmd(strCmd[0]) : DoSetCmd(strCmd);
}

// A line of one character.
int CCommunicatThread::DoKeyCmd(char cKey) {
    if (cKey == 'q' || cKey == 'Q') {
        return -1;
    }
    const bool bHelp = cKey == '?';
    if (TcpSend((bHelp ? "" : kErrorHead) + BuildHelpText()) != 0) {
        Trace(bHelp ? "DoSendRealTimeLogCmd TcpSend 0 failed.\n"
                    : "DoSendRealTimeLogCmd TcpSend 1 failed.\n",
              "DoSendRealTimeLogCmd");
        return -1;
    }
    return 0;
}

// A line of two or more characters.
int CCommunicatThread::DoSetCmd(const std::string& strCmd) {
    Progress("DoSendRealTimeLogCmd...Parse set.\n");
    std::uint32_t dwValue = 0;
    const LogClientEntry* pEntry = CheckSetCmd(strCmd, dwValue);
    if (pEntry != nullptr) {
        Progress("DoSendRealTimeLogCmd SET cmd true.\n");
        return StartRelay(*pEntry, dwValue);
    }
    if (TcpSend(kErrorHead + BuildHelpText()) != 0) {
        Trace("DoSendRealTimeLogCmd TcpSend 5failed.\n", "DoSendRealTimeLogCmd");
        return -1;
    }
    return 0;
}

// The log client that a good "set" command names, with its value in dwValue; null for a bad one.
const LogClientEntry* CCommunicatThread::CheckSetCmd(const std::string& strCmd,
                                                     std::uint32_t& dwValue) const {
    const SetCommand command = ParseSetCommand(strCmd);
    const LogClientEntry* pEntry = FindLogc(command.nNum1);
    const bool bWrong[] = {command.nFields != 3, !command.IsSet(),
                           command.nNum2 < 1 || command.nNum2 > kMaxRealTimeValue,
                           pEntry == nullptr};
    bool bGood = true;
    for (int nCheck = 0; nCheck < 4; ++nCheck) {
        if (bWrong[nCheck]) {
            Progress("DoSendRealTimeLogCmd false %d.\n", nCheck);
            bGood = false;
        }
    }
    dwValue = static_cast<std::uint32_t>(command.nNum2);
    return bGood ? pEntry : nullptr;
}

int CCommunicatThread::StartRelay(const LogClientEntry& entry, std::uint32_t dwValue) {
    // The log client may answer the frame within microseconds; the intake must find the console
    // relaying by then, or it would tell the client to stop again.
    m_nStatus = SENDING_REAL_TIME_LOG;
    const int nResult = SendOnFrameAndReply(entry, dwValue);
    if (nResult != 0) {
        m_nStatus = WAIT_SEND_COMMAND;
    }
    return nResult;
}

int CCommunicatThread::SendOnFrameAndReply(const LogClientEntry& entry, std::uint32_t dwValue) {
    if (SendRealTimeFrame(entry.nIndex, entry.nPort, dwValue) != 0) {
        Trace(
            "CCommunicatThread DoSendRealTimeLogCmd Send real time log flag to log client "
            "failed!\n",
            "DoSendRealTimeLogCmd");
        return -1;
    }
    m_nLogcIndex = entry.nIndex;
    m_nLogcPort = entry.nPort;
    std::memcpy(m_szLogcName, entry.szAppName, sizeof(m_szLogcName));
    if (TcpSend(kSetReply) != 0) {
        Trace("DoSendRealTimeLogCmd TcpSend 4 failed.\n", "DoSendRealTimeLogCmd");
        return -1;
    }
    return 0;
}

const LogClientEntry* CCommunicatThread::FindLogc(std::int32_t nIndex) const {
    for (const LogClientEntry& entry : m_listLogc) {
        if (entry.nIndex == nIndex) {
            return &entry;
        }
    }
    return nullptr;
}
