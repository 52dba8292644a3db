// One side of a TCP connection as the peers of the service need it: the listening end on 127.0.0.1,
// and an accepted connection that is read frame by frame or raw. It can be rude on purpose (bytes
// one at a time, a reset in place of an end), since that is what the service must survive.
//
// Threads: an object belongs to one thread at a time.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "core/Buff.h"
#include "support/UniqueFd.h"

using PeerBytes = std::vector<std::uint8_t>;

constexpr int kPeerLimitMs = 10000;  // how long the peers wait unless told otherwise

// Why something that was awaited did not come.
enum class PeerEnd : std::uint8_t {
    kNone,      // it came
    kClosed,    // the service ended its stream
    kReset,     // the connection broke
    kSilence,   // the time limit passed; what came in part is kept, so one may wait again
    kBadFrame,  // what came cannot be a frame
};
const char* PeerEndText(PeerEnd eEnd);  // "closed by the service", ...

// The address of wPort on 127.0.0.1.
sockaddr_in LoopbackAddress(std::uint16_t wPort);

// Milliseconds that are left of a limit.
class CDeadline {
public:
    explicit CDeadline(int nLimitMs);
    int LeftMs() const;  // 0 or more

private:
    std::int64_t m_nEndMs;  // on the monotonic clock
};

// A connection to the service; or none, when built from no descriptor or after Close or Reset.
class CPeerSocket {
public:
    // Takes a connected socket.
    explicit CPeerSocket(CUniqueFd socket = CUniqueFd());
    ~CPeerSocket() { Close(); }
    CPeerSocket(const CPeerSocket&) = delete;
    CPeerSocket& operator=(const CPeerSocket&) = delete;
    CPeerSocket(CPeerSocket&&) = default;
    CPeerSocket& operator=(CPeerSocket&& other) noexcept;  // closes what it held

    bool IsOpen() const { return m_Socket.IsOpen(); }
    int Descriptor() const { return m_Socket.Get(); }  // -1 when there is none

    // Hands all bytes to the kernel, in one piece when they fit. Throws std::system_error when the
    // connection is gone or there is none, or (ETIMEDOUT) when the service does not read for
    // nLimitMs.
    void Send(const PeerBytes& bytes, int nLimitMs = kPeerLimitMs);

    // The same, a segment for every byte and nPauseMs between two, so that the service reads them
    // one at a time.
    void SendByteByByte(const PeerBytes& bytes, int nPauseMs = 1);

    // The next frame as it is on the wire; pCheck measures it: &CBuff::CheckFeFrame or
    // &CBuff::CheckF1Frame. nullopt when none is complete within nLimitMs or ever: End() tells why.
    std::optional<PeerBytes> ReceiveFrame(std::int32_t (CBuff::*pCheck)() const,
                                          int nLimitMs = kPeerLimitMs);

    // The next 1 to nMax bytes, put to pTo, those first that were read ahead of the frames above.
    // 0 when none comes within nLimitMs: End() tells why.
    std::size_t ReceiveRaw(void* pTo, std::size_t nMax, int nLimitMs = kPeerLimitMs);

    // Puts back bytes at the end of the last ReceiveRaw with an nMax of kUnreadBytes.
    static constexpr std::size_t kUnreadBytes = 8192;
    void Unread(const PeerBytes& bytes);

    // Reads and drops everything until the service ends the connection or nLimitMs have passed.
    PeerEnd AwaitEnd(int nLimitMs = kPeerLimitMs);

    // How the last receiving ended; kReset also when there is no connection.
    PeerEnd End() const { return m_eEnd; }

    // The service sees the end of the stream; a reset when it has sent far more than was read.
    void Close();
    void Reset();  // the service sees a broken connection; what was not delivered is lost

private:
    bool WaitFor(short nEvents, const CDeadline& deadline) const;  // false when it has passed
    std::size_t ReceiveOnce(void* pTo, std::size_t nMax, const CDeadline& deadline);

    std::unique_ptr<CBuff> m_pAhead;  // received and not returned yet
    CUniqueFd m_Socket;               // non-blocking
    PeerEnd m_eEnd = PeerEnd::kNone;
};

// The listening end on 127.0.0.1.
class CPeerListener {
public:
    // wPort 0: one that the kernel picks. nReceiveBuffer: bytes that the kernel keeps for each
    // connection, about, for a peer that shall be slow to read; 0: the kernel's own choice. Throws
    // std::system_error when the port cannot be had.
    explicit CPeerListener(std::uint16_t wPort = 0, int nReceiveBuffer = 0);

    std::uint16_t Port() const { return m_wPort; }  // also while not listening

    // The next connection; one that is not open when none comes within nLimitMs. Throws
    // std::system_error when not listening.
    CPeerSocket Accept(int nLimitMs = kPeerLimitMs);

    void StopListening() { m_Socket.Reset(); }  // new connections are refused
    void Listen();                              // again, on the same port; throws as above

private:
    std::uint16_t m_wPort;
    int m_nReceiveBuffer;
    CUniqueFd m_Socket;
};
