// What a receiver may ask of an upload session: a table of its messages, and what each does.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "console/CommunicatThread.h"
#include "core/Progress.h"
#include "link/CmdThread.h"
#include "link/HistoryFile.h"
#include "link/UploadThread.h"
#include "support/ShellCommand.h"

namespace {

constexpr std::int32_t kMaxReadBytes = 65535;  // of one read

// Sets of states, one bit each.
constexpr std::uint32_t In(std::int32_t nState) {
    return 1U << static_cast<std::uint32_t>(nState);
}
constexpr std::uint32_t kAnyState = ~0U;

}  // namespace

struct CUploadThread::Handler {
    std::uint16_t wCode;
    std::uint32_t nStates;  // in which it is accepted
    std::size_t nLength;    // of the payload
    bool (CUploadThread::*pfnDo)(Payload pPayload);
};

bool CUploadThread::OnMessage(Payload pPayload, std::size_t nLen) {
    static constexpr Handler kHandlers[] = {
        {UM_HELLO_ACK, In(UPLOAD_STATE_HELLO), kHelloAckBytes, &CUploadThread::DoHelloAck},
        {UM_INFO_ACK, In(UPLOAD_STATE_INFO), kInfoAckBytes, &CUploadThread::DoInfoAck},
        {UM_GET_HLOG, In(UPLOAD_STATE_READY), kGetHlogBytes, &CUploadThread::DoGetHLog},
        {UM_CANCEL, In(UPLOAD_STATE_READY) | In(UPLOAD_STATE_SENDING), kCancelBytes,
         &CUploadThread::DoCancel},
        {UM_SUBSCRIBE, In(UPLOAD_STATE_READY), kSubscribeBytes, &CUploadThread::DoSubscribe},
        {UM_SET_LANGUAGE, In(UPLOAD_STATE_READY), kSetLanguageBytes, &CUploadThread::DoSetLanguage},
        {UM_REBOOT, kAnyState, kRebootBytes, &CUploadThread::DoReboot},
    };
    const auto* pHandler = std::find_if(
        std::begin(kHandlers), std::end(kHandlers), [pPayload](const Handler& handler) {
            return handler.wCode == LoadLe16(pPayload + kUmCodeOffset);
        });
    return pHandler != std::end(kHandlers) && pHandler->nLength == nLen &&
           (pHandler->nStates & In(m_nState)) != 0 && (this->*pHandler->pfnDo)(pPayload);
}

bool CUploadThread::DoHelloAck(Payload pPayload) {
    const std::uint8_t byAccept = pPayload[kHelloAckAcceptOffset];
    if (byAccept == kHelloRefused ||
        (byAccept == kHelloAccepted &&
         LoadLe32(pPayload + kHelloAckVersionOffset) < kLowestReceiverVersion)) {
        m_nResult = UPLOAD_END_HELLO_REFUSED;
        return false;
    }
    if (byAccept != kHelloAccepted) {
        return false;
    }
    SendInfo();
    EnterGuarded(UPLOAD_STATE_INFO);
    return true;
}

void CUploadThread::SendInfo() {
    std::uint8_t byPayload[kInfoBytes] = {};
    std::memcpy(byPayload + kInfo1Offset, &m_byRequest[kBlockInfo1Offset],
                kRequestBlockBytes - kBlockInfo1Offset);
    byPayload[kInfoNodeOffset] = g_byNodeCode;
    if (g_pCommunicatThread != nullptr) {
        // A file that cannot be read leaves the byte 0, the default language.
        g_pCommunicatThread->GetLanguageSetting(byPayload[kInfoLanguageOffset]);
    }
    StoreLe32(byPayload + kInfoValueOffset, kInfoValue);
    (void)SendFrame(
        MakeUploadFrame(UM_INFO, byPayload + kUmBodyOffset, kInfoBytes - kUmBodyOffset));
}

bool CUploadThread::DoInfoAck(Payload pPayload) {
    const std::uint8_t byAccept = pPayload[kInfoAckOffset];
    if (byAccept == kInfoAccepted) {
        m_pTimer.Stop();
        m_nState = UPLOAD_STATE_READY;
        return true;
    }
    if (byAccept == kInfoRefused) {
        m_nResult = UPLOAD_END_INFO_REFUSED;
    }
    return false;
}

bool CUploadThread::DoGetHLog(Payload pPayload) {
    Progress("CUploadThread::DoGetHLog1\n");
    const char* const szName = reinterpret_cast<const char*>(pPayload) + kGetHlogNameOffset;
    const std::string strName(szName, strnlen(szName, kGetHlogNameBytes - 1));
    const std::uint8_t byResult = OpenHLog(strName, LoadLe32(pPayload + kGetHlogStartOffset));
    std::uint8_t byBody[kGetHlogAckBytes - kUmBodyOffset];
    StoreLe32(byBody, static_cast<std::uint32_t>(m_nFileSize));
    byBody[kGetHlogAckResultOffset - kUmBodyOffset] = byResult;
    const bool bQueued = SendFrame(MakeUploadFrame(UM_GET_HLOG_ACK, byBody, sizeof(byBody)));
    if (byResult == kGetHlogFound && bQueued) {
        m_nState = UPLOAD_STATE_SENDING;
    } else {
        CloseFile();  // without the answer in front of it the receiver could not tell what comes
    }
    Progress("CUploadThread::DoGetHLog7\n");
    return true;
}

// Opens the file and takes its size and the start, a byte offset. Returns the result to answer; the
// caller closes the file unless that is kGetHlogFound.
std::uint8_t CUploadThread::OpenHLog(const std::string& strName, std::uint32_t dwStart) {
    m_nFileSize = 0;
    m_nFile = OpenHistoryFile(strName);
    const int nError = errno;
    Progress("m_nFile=%d\n", m_nFile);
    if (m_nFile == -1) {
        Progress("CUploadThread::DoGetHLog2\n");
        return nError == ENOENT ? kGetHlogNotFound : kGetHlogNotOpened;
    }
    m_nFileSize = FileSize(m_nFile);
    if (m_nFileSize <= 0) {
        Progress("CUploadThread::DoGetHLog3\n");
        return kGetHlogNotFound;
    }
    if (dwStart >= static_cast<std::uint32_t>(m_nFileSize)) {
        Progress("CUploadThread::DoGetHLog4\n");
        return kGetHlogBeyondEnd;
    }
    Progress("CUploadThread::DoGetHLog5\n");
    m_nFileOffset = static_cast<std::int32_t>(dwStart);
    lseek(m_nFile, m_nFileOffset, SEEK_SET);  // of a regular file, to a place inside: cannot fail
    Progress("CUploadThread::DoGetHLog6:%d:%d - %d\n", m_nFile, m_nFileSize, m_nFileOffset);
    return kGetHlogFound;
}

// Moves file bytes into the send ring, as many as have room. After the last one the session is
// ready again. False: the file cannot be read on.
bool CUploadThread::ReadFileData() {
    if (m_nFile == -1) {
        Progress("-read file failed111\n");
        return false;
    }
    for (std::int32_t nBytes = NextReadBytes(); nBytes > 0; nBytes = NextReadBytes()) {
        const ssize_t nRead = read(m_nFile, m_szFileBuf, static_cast<std::size_t>(nBytes));
        if (nRead < 1) {
            Progress("read file failed:%d:%d:%d,%s\n", m_nFile, nBytes, static_cast<int>(nRead),
                     std::generic_category().message(errno).c_str());
            return false;
        }
        const auto nTaken = static_cast<std::int32_t>(nRead);
        if (m_Link.SendBuff().Write(m_szFileBuf, nTaken) != nTaken) {
            return false;
        }
        m_nFileOffset += nTaken;
        if (m_nFileOffset == m_nFileSize) {
            CloseFile();
            m_nState = UPLOAD_STATE_READY;
            return true;
        }
        if (nTaken < nBytes) {
            Progress("-read file failed222\n");
            return false;
        }
    }
    return true;
}

// Bytes to read now; 0: not before more was sent. Reads are whole where they can be: topping the
// ring up after each sent chunk would cost a read for each.
std::int32_t CUploadThread::NextReadBytes() const {
    const std::int32_t nWanted = std::min(m_nFileSize - m_nFileOffset, kMaxReadBytes);
    const std::int32_t nRoom = m_Link.SendBuff().GetFree() - kRingReserve;
    return nRoom >= nWanted ? nWanted : 0;
}

void CUploadThread::CloseFile() {
    if (m_nFile != -1) {
        close(m_nFile);
        m_nFile = -1;
    }
}

bool CUploadThread::DoCancel(Payload pPayload) {
    Progress("+++++++++++CUploadThread::DoCancel1\n");
    std::uint8_t byBody[kCancelAckBytes - kUmBodyOffset] = {};
    std::memcpy(byBody, pPayload + kCancelValueOffset, sizeof(std::uint32_t));
    std::memcpy(byBody + kCancelAckTextOffset - kUmBodyOffset, kCancelAckText,
                sizeof(kCancelAckText));
    (void)SendFrame(MakeUploadFrame(UM_CANCEL_ACK, byBody, sizeof(byBody)));
    if (m_nFile != -1) {
        Progress("+++++++++++CUploadThread::DoCancel2\n");
        CloseFile();
    }
    m_nState = UPLOAD_STATE_READY;
    Progress("+++++++++++CUploadThread::DoCancel3\n");
    return true;
}

bool CUploadThread::DoSubscribe(Payload pPayload) {
    const Payload pTable = pPayload + kSubscribeTableOffset;
    std::copy_n(pTable, kSubscribeTableBytes, m_byRealTimeMask);
    m_bSubscribed =
        std::find(pTable, pTable + kSubscribeTableBytes, 1) != pTable + kSubscribeTableBytes;
    return true;
}

bool CUploadThread::DoSetLanguage(Payload pPayload) {
    if (g_pCommunicatThread != nullptr) {
        // The receiver is not told how it went; the service traces what failed.
        g_pCommunicatThread->SaveLanguageAndNotify(pPayload[kSetLanguageOffset], &m_bStop);
    }
    return true;
}

// The session ends, whether or not the command could run.
bool CUploadThread::DoReboot(Payload /*pPayload*/) {
    RunShellCommand("reboot >/dev/null", &m_bStop);
    return false;
}
