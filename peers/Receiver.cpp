#include "peers/Receiver.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace {

constexpr std::size_t kFilePieceBytes = 262144;

[[noreturn]] void Fail(const std::string& strWhat) {
    throw std::runtime_error(strWhat);
}

}  // namespace

std::optional<UploadMessage> CReceiverSession::Receive(int nLimitMs) {
    return m_Records.empty() ? ReceiveNew(nLimitMs) : TakeRecord();
}

std::optional<UploadMessage> CReceiverSession::ReceiveNew(int nLimitMs) {
    const auto frame = m_Connection.ReceiveFrame(&CBuff::CheckF1Frame, nLimitMs);
    if (!frame) {
        return std::nullopt;
    }
    return OpenUploadFrame(*frame);
}

UploadMessage CReceiverSession::TakeRecord() {
    UploadMessage record = std::move(m_Records.front());
    m_Records.pop_front();
    return record;
}

UploadMessage CReceiverSession::Await(std::uint16_t wCode, int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    for (;;) {
        auto message = ReceiveNew(deadline.LeftMs());
        if (!message) {
            Fail(fmt::format("receiver: no message {}: {}", wCode, PeerEndText(End())));
        }
        if (message->wCode == wCode) {
            return std::move(*message);
        }
        if (message->wCode != UM_RTLOG) {
            Fail(fmt::format("receiver: message {} in place of {}", message->wCode, wCode));
        }
        m_Records.push_back(std::move(*message));
    }
}

UploadInfo CReceiverSession::Handshake(int nLimitMs) {
    const CDeadline deadline(nLimitMs);
    AwaitHello(deadline.LeftMs());
    SendHelloAck();
    const UploadInfo info = AwaitInfo(deadline.LeftMs());
    SendInfoAck();
    return info;
}

void CReceiverSession::AwaitHello(int nLimitMs) {
    const std::uint32_t dwVersion = DecodeHello(Await(UM_HELLO, nLimitMs));
    if (dwVersion != kProtocolVersion) {
        Fail(fmt::format("receiver: protocol version {:#x}, not {:#x}", dwVersion,
                         kProtocolVersion));
    }
}

UploadInfo CReceiverSession::AwaitInfo(int nLimitMs) {
    return DecodeInfo(Await(UM_INFO, nLimitMs));
}

UploadFileAnswer CReceiverSession::GetFile(const std::string& strName, std::uint32_t dwStart,
                                           int nLimitMs) {
    m_Connection.Send(MakeGetHlog(strName, dwStart));
    return DecodeFileAnswer(Await(UM_GET_HLOG_ACK, nLimitMs));
}

std::uint64_t CReceiverSession::ReceiveFile(std::uint64_t nCount, const Sink& sink,
                                            int nSilenceMs) {
    PeerBytes piece(kFilePieceBytes);
    std::uint64_t nDone = 0;
    while (nDone < nCount) {
        const auto nWanted = std::min<std::uint64_t>(nCount - nDone, piece.size());
        const std::size_t nReceived =
            m_Connection.ReceiveRaw(piece.data(), static_cast<std::size_t>(nWanted), nSilenceMs);
        if (nReceived == 0) {
            break;
        }
        sink(piece.data(), nReceived);
        nDone += nReceived;
    }
    return nDone;
}

std::string CReceiverSession::ReceiveFile(std::uint64_t nCount, int nSilenceMs) {
    std::string strFile;
    ReceiveFile(
        nCount,
        [&strFile](const std::uint8_t* pBytes, std::size_t nLen) {
            strFile.append(pBytes, pBytes + nLen);
        },
        nSilenceMs);
    return strFile;
}

std::string CReceiverSession::ReceiveCancelled(std::uint32_t dwValue, std::size_t nMax,
                                               int nLimitMs) {
    const PeerBytes ack = MakeCancelAck(dwValue);
    const std::string strAck(ack.begin(), ack.end());
    const CDeadline deadline(nLimitMs);
    std::string strFile;
    std::size_t nFound = std::string::npos;
    std::size_t nSearched = 0;  // the answer does not begin in that many bytes
    while ((nFound = strFile.find(strAck, nSearched)) == std::string::npos) {
        nSearched = strFile.size() - std::min(strFile.size(), strAck.size() - 1);
        std::uint8_t piece[CPeerSocket::kUnreadBytes];
        const std::size_t nReceived =
            m_Connection.ReceiveRaw(piece, sizeof(piece), deadline.LeftMs());
        if (nReceived == 0 || nSearched > nMax) {
            Fail(fmt::format("receiver: no answer to the cancellation in {} bytes: {}",
                             strFile.size(), PeerEndText(End())));
        }
        strFile.append(piece, piece + nReceived);
    }
    const std::size_t nEnd = nFound + strAck.size();
    m_Connection.Unread({strFile.begin() + static_cast<std::ptrdiff_t>(nEnd), strFile.end()});
    strFile.resize(nFound);
    return strFile;
}

std::optional<LogRecord> CReceiverSession::ReceiveRecord(int nLimitMs) {
    const auto message = Receive(nLimitMs);
    if (!message) {
        return std::nullopt;
    }
    if (message->wCode != UM_RTLOG) {
        Fail(fmt::format("receiver: message {} in place of a live record", message->wCode));
    }
    return DecodeRecord(*message);
}

std::optional<CReceiverSession> CReceiver::Accept(int nLimitMs) {
    CPeerSocket connection = m_Listener.Accept(nLimitMs);
    if (!connection.IsOpen()) {
        return std::nullopt;
    }
    return CReceiverSession(std::move(connection));
}
