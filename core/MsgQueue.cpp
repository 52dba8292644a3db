#include "core/MsgQueue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <new>
#include <thread>
#include <utility>

#include "core/Process.h"
#include "core/ThreadMsg.h"
#include "support/MonoClock.h"

CMsgQueue g_MsgQueue;

static_assert(std::atomic<std::int32_t>::is_always_lock_free);
static_assert(std::atomic<bool>::is_always_lock_free);

namespace {

constexpr std::int32_t kFixedSlot = 0;
constexpr std::int32_t kFirstSmallSlot = 1;
constexpr std::int32_t kSlotRange = 1 << CMsgQueue::kSlotBits;
static_assert(CMsgQueue::kSmallSlots < kSlotRange);
constexpr int kFixedTries = 3;
constexpr std::chrono::milliseconds kFixedRetryPause{10};
constexpr std::int64_t kLongestSleepMs =
    std::int64_t{24} * 60 * 60 * 1000;  // of the cleaner, in an empty queue

std::int32_t SlotOf(std::int32_t nHandle) {
    return nHandle % kSlotRange;
}

bool IsHandle(std::int32_t nHandle) {
    return nHandle >= 0 && SlotOf(nHandle) <= CMsgQueue::kSmallSlots;
}

std::int32_t NextPos(std::int32_t nPos) {
    return nPos + 1 < CMsgQueue::kSmallSlots ? nPos + 1 : 0;
}

bool Announce(int nFd, std::int32_t nHandle, std::uint32_t nCode) {
    return PostPipeMsg(nFd, MSG_QUEUE_ARRIVED, static_cast<std::uint32_t>(nHandle), nCode);
}

}  // namespace

struct CMsgQueue::Slot {
    // Returns the handle of the payload that comes in: the next generation of nSlot's handles.
    std::int32_t Occupy(std::int32_t nSlot, std::uint32_t nMsgCode, std::int32_t nLen) {
        const bool bFirst =
            nHandle < 0 || nHandle > std::numeric_limits<std::int32_t>::max() - kSlotRange;
        nHandle = bFirst ? nSlot : nHandle + kSlotRange;
        bUsed = true;
        nPostedMs = MonotonicMs();
        nCode = nMsgCode;
        nLength = nLen;
        return nHandle;
    }

    std::int32_t nHandle = -1;  // of the latest payload; negative: there was none
    bool bUsed = false;
    std::int64_t nPostedMs = 0;  // time of the post, MonotonicMs()
    std::uint32_t nCode = 0;     // travels in the pipe; kept for whoever reads a core dump
    std::int32_t nLength = 0;    // bytes of payload
};

struct CMsgQueue::SmallSlot : Slot {
    std::shared_ptr<const std::uint8_t[]> pBytes;  // null while the slot is free
};

struct CMsgQueue::FixedSlot : Slot {
    std::uint8_t byData[kFixedBytes + 1] = {};
};

CMsgQueue::CMsgQueue()
    : m_pFixed(std::make_unique<FixedSlot>()),
      m_pSmall(std::make_unique<SmallSlot[]>(kSmallSlots)) {
    m_strErr[MSG_ERR_NoError] = "MSG_ERR_NoError";
    m_strErr[MSG_ERR_NoBuff] = "MSG_ERR_NoBuff";
    m_strErr[MSG_ERR_LengthTooLong] = "MSG_ERR_LengthTooLong";
    m_strErr[MSG_ERR_CANTPOST] = "MSG_ERR_CANTPOST";
    m_strErr[MSG_ERR_ERRINDEX] = "MSG_ERR_ERRINDEX";
    m_strErr[MSG_ERR_Common] = "MSG_ERR_Common";
}

CMsgQueue::~CMsgQueue() {
    StopCleaner();
}

int CMsgQueue::PostMsg(int nFd, std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    const std::int32_t nHandle = PutMsg(nCode, pData, nLen);
    if (nHandle == 0) {
        return 0;
    }
    if (Announce(nFd, nHandle, nCode)) {
        return 1;
    }
    FreeMsg(nHandle);
    return Fail(MSG_ERR_CANTPOST);
}

std::int32_t CMsgQueue::PutMsg(std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    // Allocated and filled before the lock is taken, so that nobody waits for a copy.
    return PutMsg(nCode, MakePayload(pData, nLen));
}

std::int32_t CMsgQueue::PutMsg(std::uint32_t nCode, const MsgPayload& payload) {
    const std::int32_t nHandle = payload.pBytes == nullptr ? 0 : FillSmall(nCode, payload);
    return nHandle == 0 ? Fail(MSG_ERR_NoBuff) : nHandle;
}

MsgPayload CMsgQueue::MakePayload(const void* pData, std::int32_t nLen) {
    if (nLen < 1) {
        return {};
    }
    const auto nBytes = static_cast<std::size_t>(nLen);
    try {
        auto pBytes = std::make_shared_for_overwrite<std::uint8_t[]>(nBytes);
        std::memcpy(pBytes.get(), pData, nBytes);
        return {std::move(pBytes), nLen};
    } catch (const std::bad_alloc&) {
        return {};
    }
}

int CMsgQueue::PostMsgFixed(int nFd, std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    if (nLen > kFixedBytes) {
        return Fail(MSG_ERR_LengthTooLong);
    }
    const std::int32_t nHandle = nLen < 1 ? -1 : FillFixed(nCode, pData, nLen);
    if (nHandle < 0) {
        return Fail(MSG_ERR_NoBuff);
    }
    for (int nTry = 0; nTry < kFixedTries; ++nTry) {
        if (Announce(nFd, nHandle, nCode)) {
            return 1;
        }
        std::this_thread::sleep_for(kFixedRetryPause);
    }
    FreeMsg(nHandle);
    return Fail(MSG_ERR_CANTPOST);
}

std::int32_t CMsgQueue::GetMsgLen(std::int32_t nHandle) {
    const CLockGuard guard(m_mtxSlots);
    const Slot* pSlot = UsedSlot(nHandle);
    return pSlot != nullptr ? pSlot->nLength : -1;
}

int CMsgQueue::GetMsg(std::int32_t nHandle, void* pDest) {
    const CLockGuard guard(m_mtxSlots);
    const Slot* pSlot = UsedSlot(nHandle);
    if (pSlot == nullptr) {
        return 0;
    }
    std::memcpy(pDest, BytesAt(SlotOf(nHandle)), static_cast<std::size_t>(pSlot->nLength));
    ReleaseSlot(SlotOf(nHandle));
    return 1;
}

int CMsgQueue::TakeMsg(std::int32_t nHandle, MsgPayload& payload) {
    const CLockGuard guard(m_mtxSlots);
    const Slot* pSlot = UsedSlot(nHandle);
    if (pSlot == nullptr) {
        return 0;
    }
    const std::int32_t nSlot = SlotOf(nHandle);
    MsgPayload taken = nSlot == kFixedSlot ? MakePayload(m_pFixed->byData, pSlot->nLength)
                                           : MsgPayload{SmallAt(nSlot).pBytes, pSlot->nLength};
    ReleaseSlot(nSlot);
    if (taken.pBytes == nullptr) {
        return Fail(MSG_ERR_NoBuff);
    }
    payload = std::move(taken);
    return 1;
}

int CMsgQueue::FreeMsg(std::int32_t nHandle) {
    const CLockGuard guard(m_mtxSlots);
    if (UsedSlot(nHandle) == nullptr) {
        return 0;
    }
    ReleaseSlot(SlotOf(nHandle));
    return 1;
}

CString CMsgQueue::GetErrorText() const {
    // Through the characters: a shared block would have its reference count changed by two threads.
    const char* szText = m_strErr[GetErrorCode()];
    CString strCopy;
    strCopy = szText;
    return strCopy;
}

int CMsgQueue::StartCleaner() {
    const CLockGuard guard(m_mtxCleaner);
    if (m_bCleanerRun) {
        return 1;
    }
    if (!m_Sleeper.Open()) {
        return 0;
    }
    m_bCleanerRun = true;  // before the thread looks at it
    if (StartThread(m_threadCleaner, "logd.cleaner", CleanerBody, this) != 0) {
        m_bCleanerRun = false;
        return 0;
    }
    return 1;
}

void CMsgQueue::StopCleaner() {
    const CLockGuard guard(m_mtxCleaner);
    if (m_bCleanerRun.exchange(false)) {
        m_Sleeper.Wake();
        pthread_join(m_threadCleaner, nullptr);
    }
}

void CMsgQueue::ExpireOld(std::int64_t nNowMs) {
    const CLockGuard guard(m_mtxSlots);
    ReleaseIfOld(kFixedSlot, nNowMs);
    for (std::int32_t nSlot = 0; nSlot < kSmallSlotsPerPass; ++nSlot) {
        ReleaseIfOld(kFirstSmallSlot + m_nCleanPos, nNowMs);
        m_nCleanPos = NextPos(m_nCleanPos);
    }
}

void* CMsgQueue::CleanerBody(void* pQueue) {
    static_cast<CMsgQueue*>(pQueue)->CleanerLoop();
    return nullptr;
}

int CMsgQueue::Fail(std::int32_t nError) {
    m_nLastError = nError;
    return 0;
}

// The handle of the filled slot; 0 when none is free.
std::int32_t CMsgQueue::FillSmall(std::uint32_t nCode, const MsgPayload& payload) {
    const CLockGuard guard(m_mtxSlots);
    if (m_nSmallUsed >= kSmallSlots) {
        return 0;
    }
    while (SmallAt(kFirstSmallSlot + m_nSmallPos).bUsed) {  // ends: a slot is free
        m_nSmallPos = NextPos(m_nSmallPos);
    }
    const std::int32_t nSlot = kFirstSmallSlot + m_nSmallPos;
    m_nSmallPos = NextPos(m_nSmallPos);
    SmallSlot& slot = SmallAt(nSlot);
    const std::int32_t nHandle = slot.Occupy(nSlot, nCode, payload.nLength);
    slot.pBytes = payload.pBytes;
    ++m_nSmallUsed;
    WakeCleaner();
    return nHandle;
}

// The handle of the filled slot; negative when it is taken.
std::int32_t CMsgQueue::FillFixed(std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    const CLockGuard guard(m_mtxSlots);
    if (m_pFixed->bUsed) {
        return -1;
    }
    const std::int32_t nHandle = m_pFixed->Occupy(kFixedSlot, nCode, nLen);
    std::memcpy(m_pFixed->byData, pData, static_cast<std::size_t>(nLen));
    ++m_nFixedUsed;
    WakeCleaner();
    return nHandle;
}

void CMsgQueue::CleanerLoop() {
    while (m_bCleanerRun) {
        m_Sleeper.Sleep(ExpireAll());
    }
}

// One pass after the other over all slots; then the milliseconds until the oldest entry ends. What
// is posted meanwhile ends later, so only the first entry of an empty queue wakes the cleaner.
std::int64_t CMsgQueue::ExpireAll() {
    const std::int64_t nNowMs = MonotonicMs();
    for (std::int32_t nSlot = 0; nSlot < kSmallSlots; nSlot += kSmallSlotsPerPass) {
        ExpireOld(nNowMs);
    }
    const CLockGuard guard(m_mtxSlots);
    std::int64_t nOldestMs = nNowMs;
    for (std::int32_t nSlot = kFixedSlot; nSlot <= kSmallSlots; ++nSlot) {
        const Slot& slot = SlotAt(nSlot);
        nOldestMs = slot.bUsed ? std::min(nOldestMs, slot.nPostedMs) : nOldestMs;
    }
    m_bCleanerRests = m_nSmallUsed == 0 && m_nFixedUsed == 0;
    return m_bCleanerRests ? kLongestSleepMs : nOldestMs + kExpiryMs + 1 - nNowMs;
}

void CMsgQueue::WakeCleaner() {
    if (std::exchange(m_bCleanerRests, false)) {
        m_Sleeper.Wake();
    }
}

CMsgQueue::Slot& CMsgQueue::SlotAt(std::int32_t nSlot) {
    if (nSlot == kFixedSlot) {
        return *m_pFixed;
    }
    return SmallAt(nSlot);
}

CMsgQueue::SmallSlot& CMsgQueue::SmallAt(std::int32_t nSlot) {
    return *(m_pSmall.get() + (nSlot - kFirstSmallSlot));
}

const std::uint8_t* CMsgQueue::BytesAt(std::int32_t nSlot) {
    return nSlot == kFixedSlot ? m_pFixed->byData : SmallAt(nSlot).pBytes.get();
}

// The slot behind nHandle when something waits in it; else null, and the code says why.
CMsgQueue::Slot* CMsgQueue::UsedSlot(std::int32_t nHandle) {
    if (!IsHandle(nHandle)) {
        Fail(MSG_ERR_ERRINDEX);
        return nullptr;
    }
    Slot& slot = SlotAt(SlotOf(nHandle));
    if (!slot.bUsed || slot.nHandle != nHandle) {
        Fail(MSG_ERR_Common);
        return nullptr;
    }
    return &slot;
}

void CMsgQueue::ReleaseSlot(std::int32_t nSlot) {
    SlotAt(nSlot).bUsed = false;
    if (nSlot == kFixedSlot) {
        --m_nFixedUsed;
    } else {
        SmallAt(nSlot).pBytes.reset();
        --m_nSmallUsed;
    }
}

void CMsgQueue::ReleaseIfOld(std::int32_t nSlot, std::int64_t nNowMs) {
    const Slot& slot = SlotAt(nSlot);
    if (slot.bUsed && nNowMs - slot.nPostedMs > kExpiryMs) {
        ReleaseSlot(nSlot);
    }
}
