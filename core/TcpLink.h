// One outgoing TCP connection of a worker thread, with its rings and its place in the descriptor
// sets: connecting, cutting received bytes into frames, sending queued frames. What the frames mean
// and when to connect is its owner's business.
//
// Threads: the thread that owns the connection.
#pragma once

#include <sys/select.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "core/Buff.h"
#include "core/ThreadMsg.h"

enum class ConnectEnd : std::uint8_t { kDone, kInProgress, kFailed };

// What a turn of receiving came to.
enum class ReceiveEnd : std::uint8_t {
    kOpen,     // all frames that are here were accepted
    kClosed,   // the peer has ended its stream
    kRefused,  // the connection is broken, no frame can begin with what came, or one was refused
};

// How a turn of the owner's loop ended.
enum class TurnEnd : std::uint8_t {
    kGoOn,
    kQuit,    // a quit message came
    kFailed,  // waiting is impossible; errno says why
};

class CTcpLink {
public:
    // What the owner does in a turn, in this order.
    struct Handlers {
        std::function<void(const PipeMsg&)> onPipeMsg;
        std::function<void()> onConnected;  // the connection that was in progress stands
        std::function<void()> onClosed;     // it failed
        std::function<void()> onReadable;   // of a connection that stands
        std::function<void()> onWritable;   // the same, if it is still open
    };

    // How many bytes the frame at the front of a ring has; 0: not all here; -1: no frame.
    using FrameCheck = std::int32_t (CBuff::*)() const;

    // Acts on one frame of nLen bytes, which it may change. False refuses it.
    using FrameHandler = std::function<bool(std::uint8_t* pFrame, std::int32_t nLen)>;

    // Capacities of the two rings in bytes.
    CTcpLink(std::int32_t nSendBytes, std::int32_t nRecvBytes);
    ~CTcpLink();  // closes the connection
    CTcpLink(const CTcpLink&) = delete;
    CTcpLink& operator=(const CTcpLink&) = delete;

    bool IsOpen() const { return m_nSocket != -1; }

    // Makes a non-blocking socket without delay in place of the one there was. False: there is
    // none.
    [[nodiscard]] bool CreateSocket();

    // Closes the connection, if any, and drops what both rings hold.
    void CloseSocket();

    // Binds the socket to the local address dwHost, host byte order, at a port that the kernel
    // picks.
    [[nodiscard]] bool BindToHost(std::uint32_t dwHost);

    // Connects to dwHost and wPort, both in host byte order. kInProgress: a later Turn calls
    // onConnected or onClosed. kFailed: at once.
    [[nodiscard]] ConnectEnd Connect(std::uint32_t dwHost, std::uint16_t wPort);

    // Waits for the connection and for the pipe with the given read end, at most 100 ms, and calls
    // the handlers for what came.
    [[nodiscard]] TurnEnd Turn(CPipeReader& reader, int nPipeReadEnd, const Handlers& handlers);

    // Queues a frame whole. False, and nothing of it is queued, when the ring has no room for it.
    [[nodiscard]] bool SendFrame(const std::vector<std::uint8_t>& frame);

    // Receives what is there, within limits that keep a flooding peer from holding the thread, and
    // gives each frame to onFrame, in order. No frame is longer than kMaxFrameBytes.
    [[nodiscard]] ReceiveEnd Receive(FrameCheck pfnCheck, const FrameHandler& onFrame);

    // Sends what is queued until the socket would block, nothing is left, or for this turn enough
    // went. onChunk, if any, is called after each chunk that went whole and may queue more; false
    // from it is a failure. False: the connection is broken or onChunk failed.
    [[nodiscard]] bool Send(const std::function<bool()>& onChunk = nullptr);

    // Does nothing for nMs milliseconds, or until the connection has something to receive.
    void RestUntilReadable(int nMs) const;

    CBuff& SendBuff() { return *m_pSendBuff; }
    const CBuff& SendBuff() const { return *m_pSendBuff; }

    static constexpr std::int32_t kMaxFrameBytes = 1024;

private:
    struct Events;
    int Wait(int nPipeReadEnd, Events& events) const;
    void HandleSocket(const Events& events, const Handlers& handlers);
    bool FinishConnect();
    bool ProcessFrames(FrameCheck pfnCheck, const FrameHandler& onFrame);

    std::int32_t m_nSocket = -1;
    std::uint32_t m_nConnection = 0;  // counts sockets made: tells one from the next of its number
    bool m_bConnecting = false;
    fd_set m_setRead;   // the socket while connecting or connected
    fd_set m_setWrite;  // the socket while connecting or while m_pSendBuff holds bytes
    std::unique_ptr<CBuff> m_pSendBuff;
    std::unique_ptr<CBuff> m_pRecvBuff;
};
