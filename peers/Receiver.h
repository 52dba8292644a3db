// The receiver of history uploads as the service sees it: listens where a session of the service
// connects to, then asks the session for files and live records (link/UploadFrame.h has the
// layouts).
//
// Threads: an object belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "peers/PeerSocket.h"
#include "transfer/UploadMessage.h"

// One session of the service. All that receives throws std::runtime_error for a message with a
// wrong head or length. What awaits a certain message throws it too, naming message and end, when
// that message does not come next; live records in front of it are kept for Receive and
// ReceiveRecord.
class CReceiverSession {
public:
    // Takes over file bytes as they come.
    using Sink = std::function<void(const std::uint8_t* pBytes, std::size_t nLen)>;

    explicit CReceiverSession(CPeerSocket connection) : m_Connection(std::move(connection)) {}

    // The next message, whatever it is; nullopt: End() tells why.
    std::optional<UploadMessage> Receive(int nLimitMs = kPeerLimitMs);
    // The next message, which must be of that code.
    UploadMessage Await(std::uint16_t wCode, int nLimitMs = kPeerLimitMs);

    // Sends a message; the body is what follows the payload's head.
    void SendMessage(std::uint16_t wCode, const PeerBytes& body = {}) {
        m_Connection.Send(MakeUploadFrame(wCode, body.data(), body.size()));
    }

    // The whole handshake: awaits UM_HELLO and UM_INFO, accepts both.
    UploadInfo Handshake(int nLimitMs = kPeerLimitMs);
    // Its four steps. AwaitHello throws too when the version is not kProtocolVersion.
    void AwaitHello(int nLimitMs = kPeerLimitMs);
    void SendHelloAck(std::uint8_t byAnswer = kHelloAccepted,
                      std::uint32_t dwVersion = kLowestReceiverVersion) {
        m_Connection.Send(MakeHelloAck(byAnswer, dwVersion));
    }
    UploadInfo AwaitInfo(int nLimitMs = kPeerLimitMs);
    void SendInfoAck(std::uint8_t byAnswer = kInfoAccepted) {
        m_Connection.Send(MakeInfoAck(byAnswer));
    }

    // Asks for a file from a start offset and awaits the answer. strName: at most
    // kGetHlogNameBytes, std::length_error otherwise. When it was found, its bytes from the offset
    // to its size follow: ReceiveFile.
    UploadFileAnswer GetFile(const std::string& strName, std::uint32_t dwStart = 0,
                             int nLimitMs = kPeerLimitMs);

    // Hands the next nCount bytes of the stream to the sink as they come. Returns how many came:
    // fewer than nCount when nothing comes for nSilenceMs or the session ends, as End() tells.
    std::uint64_t ReceiveFile(std::uint64_t nCount, const Sink& sink,
                              int nSilenceMs = kPeerLimitMs);

    // The same bytes as one string; for what fits into memory.
    std::string ReceiveFile(std::uint64_t nCount, int nSilenceMs = kPeerLimitMs);

    // Sends UM_CANCEL; the answer is a message of its own, or, when a file is under way, behind the
    // file bytes that the session has already queued: ReceiveCancelled.
    void Cancel(std::uint32_t dwValue) { m_Connection.Send(MakeCancel(dwValue)); }

    // After a Cancel with dwValue in the middle of a file: the file bytes that still come in front
    // of the answer, which is taken off. Throws std::runtime_error when it does not come within
    // nLimitMs or within nMax bytes.
    std::string ReceiveCancelled(std::uint32_t dwValue, std::size_t nMax,
                                 int nLimitMs = kPeerLimitMs);

    // Replace the subscription table.
    void Subscribe(const SubscriptionTable& table) { m_Connection.Send(MakeSubscribe(table)); }
    void Subscribe(const std::vector<ClientAndType>& wanted) {
        Subscribe(MakeSubscription(wanted));
    }

    // The next live record, with the text that it carries. nullopt: none came, End() tells why.
    // Throws std::runtime_error when another message comes.
    std::optional<LogRecord> ReceiveRecord(int nLimitMs = kPeerLimitMs);

    void SetLanguage(std::uint8_t byLanguage) { m_Connection.Send(MakeSetLanguage(byLanguage)); }
    void Reboot() { SendMessage(UM_REBOOT); }

    PeerEnd End() const { return m_Connection.End(); }  // of the last receiving

    // Reads and drops everything until the service ends the session.
    PeerEnd AwaitEnd(int nLimitMs = kPeerLimitMs) { return m_Connection.AwaitEnd(nLimitMs); }

    // For raw and byte-by-byte sending, closing and resetting.
    CPeerSocket& Connection() { return m_Connection; }

private:
    std::optional<UploadMessage> ReceiveNew(int nLimitMs);  // past the records that are kept
    UploadMessage TakeRecord();                             // the oldest kept

    CPeerSocket m_Connection;
    std::deque<UploadMessage> m_Records;  // live records that came while something else was awaited
};

class CReceiver {
public:
    // Listens on wPort of 127.0.0.1, as CPeerListener does; its parameters and exceptions.
    explicit CReceiver(std::uint16_t wPort = 0, int nReceiveBuffer = 0)
        : m_Listener(wPort, nReceiveBuffer) {}

    std::uint16_t Port() const { return m_Listener.Port(); }
    void StopListening() { m_Listener.StopListening(); }  // accepted sessions stay
    void Listen() { m_Listener.Listen(); }                // again, on the same port

    // The next session; nullopt when none comes within nLimitMs.
    std::optional<CReceiverSession> Accept(int nLimitMs = kPeerLimitMs);

private:
    CPeerListener m_Listener;
};
