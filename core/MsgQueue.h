// Payloads that travel between threads and do not fit into a pipe message. The poster's bytes are
// copied into a slot, and the receiver's pipe gets MSG_QUEUE_ARRIVED with the slot's handle
// (wParam) and the poster's message code (lParam). Fetching frees the slot; a cleaner thread frees
// what nobody fetched within a minute.
//
// Threads: any may post, fetch and free. The pipe is written after the slot is complete and the
// lock is given back, so a receiver never meets a half-filled slot.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/Lock.h"
#include "support/Sleeper.h"
#include "support/cstring.h"

// Codes of GetErrorCode().
constexpr std::int32_t MSG_ERR_NoError = 0;        // nothing failed so far
constexpr std::int32_t MSG_ERR_NoBuff = 1;         // no free slot, no memory, or a length below 1
constexpr std::int32_t MSG_ERR_LengthTooLong = 2;  // too long for the fixed slot
constexpr std::int32_t MSG_ERR_CANTPOST = 3;       // the receiver's pipe is full or broken
constexpr std::int32_t MSG_ERR_ERRINDEX = 4;       // no such handle
constexpr std::int32_t MSG_ERR_Common = 5;         // nothing waits behind that handle (any more)
constexpr std::int32_t kMsgErrorCodes = 6;

class CMsgQueue {
public:
    static constexpr std::int32_t kSmallSlots = 5000;  // handles 1 to 5000; handle 0: fixed slot
    static constexpr std::int32_t kFixedBytes = 255;   // longest payload of the fixed slot
    static constexpr std::int32_t kExpiryMs = 60000;   // an older entry is dropped by the cleaner
    static constexpr std::int32_t kSmallSlotsPerPass = 50;  // small slots that one pass looks at

    CMsgQueue();
    virtual ~CMsgQueue();
    CMsgQueue(const CMsgQueue&) = delete;
    CMsgQueue& operator=(const CMsgQueue&) = delete;

    // Copies nLen bytes, 1 or more, into a small slot and tells the receiver, whose pipe's write
    // end is nFd. Returns 1; or 0 with MSG_ERR_NoBuff or MSG_ERR_CANTPOST, and then nothing is
    // kept.
    int PostMsg(int nFd, std::uint32_t nCode, const void* pData, std::int32_t nLen);

    // The first half of PostMsg: copies the bytes into a small slot. Whoever does this tells the
    // receiver the handle, or frees the slot. Returns the handle; 0 with MSG_ERR_NoBuff.
    [[nodiscard]] std::int32_t PutMsg(std::uint32_t nCode, const void* pData, std::int32_t nLen);

    // PostMsg through the one fixed slot, which needs no memory: nLen is 1 to kFixedBytes, and a
    // full pipe is tried three times, 10 ms apart. 0 also with MSG_ERR_LengthTooLong.
    int PostMsgFixed(int nFd, std::uint32_t nCode, const void* pData, std::int32_t nLen);

    // Handles are the wParam of MSG_QUEUE_ARRIVED, as a signed number. Each of these fails with
    // MSG_ERR_ERRINDEX or MSG_ERR_Common.

    // Length in bytes of the payload, which stays where it is; -1: failure.
    [[nodiscard]] std::int32_t GetMsgLen(std::int32_t nHandle);

    // Copies the payload to pDest, which has room for GetMsgLen() bytes, and frees the slot.
    // Returns 1; or 0, and pDest is untouched.
    [[nodiscard]] int GetMsg(std::int32_t nHandle, void* pDest);

    // Makes payload the waiting payload and frees the slot, in one step: nobody gets in between
    // length and bytes. Returns 1; or 0, and payload is untouched.
    [[nodiscard]] int TakeMsg(std::int32_t nHandle, std::vector<std::uint8_t>& payload);

    // Frees the slot unread. Returns 1 or 0.
    int FreeMsg(std::int32_t nHandle);

    // Code of the latest failure in any thread; successes leave it alone.
    std::int32_t GetErrorCode() const { return m_nLastError; }

    // The name of that code. The copy belongs to the caller alone.
    CString GetErrorText() const;

    // Small slots that are free at this moment.
    std::int32_t GetSmallFree() const { return kSmallSlots - m_nSmallUsed; }

    // Starts the cleaner thread. Call it in the process that keeps running: a thread does not
    // survive a fork. Returns 1 when it runs, 0 when it cannot be created.
    [[nodiscard]] int StartCleaner();

    // Ends the cleaner thread and waits for it. Does nothing when it does not run.
    void StopCleaner();

    // One pass of the cleaner: looks at the fixed slot and at the next kSmallSlotsPerPass small
    // slots, in turn over all of them, and frees those posted more than kExpiryMs before nNowMs, a
    // time of MonotonicMs().
    void ExpireOld(std::int64_t nNowMs);

private:
    struct Slot;
    struct SmallSlot;
    struct FixedSlot;
    using Payload = std::unique_ptr<std::uint8_t[]>;

    static void* CleanerBody(void* pQueue);

    int Fail(std::int32_t nError);  // notes the code, returns 0
    std::int32_t FillSmall(std::uint32_t nCode, Payload pPayload, std::int32_t nLen);
    bool FillFixed(std::uint32_t nCode, const void* pData, std::int32_t nLen);
    void CleanerLoop();
    std::int64_t ExpireAll();
    void WakeCleaner() REQUIRES(m_mtxSlots);

    Slot& SlotAt(std::int32_t nHandle) REQUIRES(m_mtxSlots);
    SmallSlot& SmallAt(std::int32_t nHandle) REQUIRES(m_mtxSlots);
    const std::uint8_t* PayloadAt(std::int32_t nHandle) REQUIRES(m_mtxSlots);
    Slot* UsedSlot(std::int32_t nHandle) REQUIRES(m_mtxSlots);
    void ReleaseSlot(std::int32_t nHandle) REQUIRES(m_mtxSlots);
    void ReleaseIfOld(std::int32_t nHandle, std::int64_t nNowMs) REQUIRES(m_mtxSlots);

    std::atomic<std::int32_t> m_nSmallUsed{0};  // written under m_mtxSlots, read by any
    CString m_strErr[kMsgErrorCodes];           // text of each code; only the constructor writes
    std::atomic<bool> m_bCleanerRun{false};     // the cleaner runs while it is set
    std::atomic<std::int32_t> m_nLastError{MSG_ERR_NoError};
    std::int32_t m_nFixedUsed GUARDED_BY(m_mtxSlots) = 0;  // 0 or 1
    std::int32_t m_nSmallPos GUARDED_BY(m_mtxSlots) = 0;   // small slot that is tried first
    std::int32_t m_nCleanPos GUARDED_BY(m_mtxSlots) = 0;   // small slot where the next pass begins
    std::unique_ptr<FixedSlot> m_pFixed GUARDED_BY(m_mtxSlots);
    std::unique_ptr<SmallSlot[]> m_pSmall GUARDED_BY(m_mtxSlots);
    // The cleaner sleeps until somebody posts: it has been through an empty queue.
    bool m_bCleanerRests GUARDED_BY(m_mtxSlots) = false;
    CSleeper m_Sleeper;  // the cleaner's
    CLock m_mtxSlots;    // guards every slot, the counters and the positions
    CLock m_mtxCleaner;  // one start or stop of the cleaner at a time
    pthread_t m_threadCleaner GUARDED_BY(m_mtxCleaner) = {};  // valid while m_bCleanerRun is set
};

extern CMsgQueue g_MsgQueue;
