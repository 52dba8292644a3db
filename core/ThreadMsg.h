// The pipes through which threads wake each other, the message that travels in them, and how it is
// written and read.
//
// Threads: every worker reads its own pipe only; any thread may write into any pipe, since a
// message is one write below the pipe's atomic size. The pipes are made by main before the first
// worker starts and are never closed.
#pragma once

#include <cstddef>
#include <cstdint>

// One pipe message, 12 bytes in host byte order.
struct PipeMsg {
    std::int32_t id;       // one of the identifiers below
    std::uint32_t wParam;  // MSG_QUEUE_ARRIVED: queue handle; MSG_TIMER: timer identifier; else 0
    std::uint32_t
        lParam;  // MSG_QUEUE_ARRIVED: queue message code; MSG_TIMER: the timer's parameter
};
static_assert(sizeof(PipeMsg) == 12);

// Message identifiers.
constexpr std::int32_t LOG_THREAD_QUIT = 1001;          // leave the run loop
constexpr std::int32_t LOG_THREAD_DATA_ARRIVED = 1002;  // a record waits in the circle buffer
constexpr std::int32_t MSG_QUEUE_ARRIVED = 3020;        // a payload waits in the message queue
constexpr std::int32_t MSG_TIMER = 32769;               // a timer expired

// Message codes of MSG_QUEUE_ARRIVED.
constexpr std::uint32_t MSG_UT_MT_QUIT = 0;   // upload session to intake: it has ended
constexpr std::uint32_t MSG_MT_UT_RTLOG = 1;  // intake to upload session: a record
constexpr std::uint32_t MSG_MT_CT_SEND = 2;   // intake to command link: send this
constexpr std::uint32_t MSG_CT_MT_HLOG = 3;   // command link to intake: a history request

constexpr int kUploadSlots = 5;

// The pipes: index 0 is the read end, index 1 the write end; both non-blocking.
extern int g_nCmdThreadID[2];                   // read by the command link
extern int g_nLogRecvThreadID[2];               // read by the intake
extern int g_nMsgPipe[2];                       // read by the console
extern int g_nUploadThreadID[kUploadSlots][2];  // pair i is read by the upload session in slot i

// Makes all pipes. True when every one of them could be set up.
bool CreateMsgqueue();

// Writes one message into the pipe whose write end is nWriteEnd; tried once. False when the pipe is
// full or broken; nothing of the message is in the pipe then.
bool PostPipeMsg(int nWriteEnd, std::int32_t nId, std::uint32_t wParam = 0,
                 std::uint32_t lParam = 0);

// Writes nMsgs messages, 1 to kMaxMsgsAtOnce, with one call: all of them, or none and false.
bool PostPipeMsgs(int nWriteEnd, const PipeMsg* pMsgs, std::size_t nMsgs);
constexpr std::size_t kMaxMsgsAtOnce = 256;  // below the size that a pipe takes whole

// Puts messages together again on the reading side; part of one survives from call to call.
class CPipeReader {
public:
    // Takes the next whole message out of the pipe whose read end is nReadEnd. False when none is
    // there yet: the pipe is empty, at its end or broken.
    [[nodiscard]] bool Next(int nReadEnd, PipeMsg& msg);

    // Gives the waiting messages to onMessage(const PipeMsg&), oldest first, at most nMax of them,
    // up to kMaxMsgsPerTurn, so that the thread gets to its sockets when others keep filling the
    // pipe. One read takes them all out of it. False at LOG_THREAD_QUIT, which is not passed on,
    // and neither is what came after it.
    template <class OnMessage>
    [[nodiscard]] bool Dispatch(int nReadEnd, const OnMessage& onMessage,
                                std::size_t nMax = kMaxMsgsPerTurn) {
        Read(nReadEnd, nMax);
        const std::size_t nWhole = m_nReceived / sizeof(PipeMsg);
        for (std::size_t nMsg = 0; nMsg < nWhole; ++nMsg) {
            const PipeMsg msg = MsgAt(nMsg);
            if (msg.id == LOG_THREAD_QUIT) {
                m_nReceived = 0;
                return false;
            }
            onMessage(msg);
        }
        Drop(nWhole);
        return true;
    }

    // What so many messages may queue at most fits into each connection's send ring.
    static constexpr std::size_t kMaxMsgsPerTurn = 128;

private:
    void Read(int nReadEnd, std::size_t nMsgs);
    PipeMsg MsgAt(std::size_t nMsg) const;
    void Drop(std::size_t nMsgs);

    std::uint8_t m_byMsgs[kMaxMsgsPerTurn * sizeof(PipeMsg)] = {};
    std::size_t m_nReceived = 0;  // bytes of m_byMsgs that are filled; less than one message of
                                  // them between two calls
};
