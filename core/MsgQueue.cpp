#include "core/MsgQueue.h"

#include <algorithm>
#include <chrono>
#include <cstring>
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

constexpr std::int32_t kFixedHandle = 0;
constexpr std::int32_t kFirstSmallHandle = 1;
constexpr int kFixedTries = 3;
constexpr std::chrono::milliseconds kFixedRetryPause{10};
constexpr std::int64_t kLongestSleepMs = 24 * 60 * 60 * 1000;  // of the cleaner, in an empty queue

bool IsHandle(std::int32_t nHandle) {
    return nHandle >= kFixedHandle && nHandle <= CMsgQueue::kSmallSlots;
}

std::int32_t NextPos(std::int32_t nPos) {
    return nPos + 1 < CMsgQueue::kSmallSlots ? nPos + 1 : 0;
}

bool Announce(int nFd, std::int32_t nHandle, std::uint32_t nCode) {
    return PostPipeMsg(nFd, MSG_QUEUE_ARRIVED, static_cast<std::uint32_t>(nHandle), nCode);
}

}  // namespace

struct CMsgQueue::Slot {
    void Occupy(std::uint32_t nMsgCode, std::int32_t nLen) {
        bUsed = true;
        nPostedMs = MonotonicMs();
        nCode = nMsgCode;
        nLength = nLen;
    }

    bool bUsed = false;
    std::int64_t nPostedMs = 0;  // time of the post, MonotonicMs()
    std::uint32_t nCode = 0;     // travels in the pipe; kept for whoever reads a core dump
    std::int32_t nLength = 0;    // bytes of payload
};

struct CMsgQueue::SmallSlot : Slot {
    Payload pData;  // null while the slot is free
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
    if (nLen < 1) {
        return Fail(MSG_ERR_NoBuff);
    }
    // Allocated and filled before the lock is taken, so that nobody waits for a copy.
    const auto nBytes = static_cast<std::size_t>(nLen);
    Payload pPayload(new (std::nothrow) std::uint8_t[nBytes]);
    if (pPayload == nullptr) {
        return Fail(MSG_ERR_NoBuff);
    }
    std::memcpy(pPayload.get(), pData, nBytes);

    const std::int32_t nHandle = FillSmall(nCode, std::move(pPayload), nLen);
    return nHandle < kFirstSmallHandle ? Fail(MSG_ERR_NoBuff) : nHandle;
}

int CMsgQueue::PostMsgFixed(int nFd, std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    if (nLen > kFixedBytes) {
        return Fail(MSG_ERR_LengthTooLong);
    }
    if (nLen < 1 || !FillFixed(nCode, pData, nLen)) {
        return Fail(MSG_ERR_NoBuff);
    }
    for (int nTry = 0; nTry < kFixedTries; ++nTry) {
        if (Announce(nFd, kFixedHandle, nCode)) {
            return 1;
        }
        std::this_thread::sleep_for(kFixedRetryPause);
    }
    FreeMsg(kFixedHandle);
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
    std::memcpy(pDest, PayloadAt(nHandle), static_cast<std::size_t>(pSlot->nLength));
    ReleaseSlot(nHandle);
    return 1;
}

int CMsgQueue::TakeMsg(std::int32_t nHandle, std::vector<std::uint8_t>& payload) {
    const CLockGuard guard(m_mtxSlots);
    const Slot* pSlot = UsedSlot(nHandle);
    if (pSlot == nullptr) {
        return 0;
    }
    const std::uint8_t* pFrom = PayloadAt(nHandle);
    payload.assign(pFrom, pFrom + pSlot->nLength);
    ReleaseSlot(nHandle);
    return 1;
}

int CMsgQueue::FreeMsg(std::int32_t nHandle) {
    const CLockGuard guard(m_mtxSlots);
    if (UsedSlot(nHandle) == nullptr) {
        return 0;
    }
    ReleaseSlot(nHandle);
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
    ReleaseIfOld(kFixedHandle, nNowMs);
    for (std::int32_t nSlot = 0; nSlot < kSmallSlotsPerPass; ++nSlot) {
        ReleaseIfOld(kFirstSmallHandle + m_nCleanPos, nNowMs);
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
std::int32_t CMsgQueue::FillSmall(std::uint32_t nCode, Payload pPayload, std::int32_t nLen) {
    const CLockGuard guard(m_mtxSlots);
    if (m_nSmallUsed >= kSmallSlots) {
        return 0;
    }
    while (SmallAt(kFirstSmallHandle + m_nSmallPos).bUsed) {  // ends: a slot is free
        m_nSmallPos = NextPos(m_nSmallPos);
    }
    const std::int32_t nHandle = kFirstSmallHandle + m_nSmallPos;
    m_nSmallPos = NextPos(m_nSmallPos);
    SmallSlot& slot = SmallAt(nHandle);
    slot.Occupy(nCode, nLen);
    slot.pData = std::move(pPayload);
    ++m_nSmallUsed;
    WakeCleaner();
    return nHandle;
}

bool CMsgQueue::FillFixed(std::uint32_t nCode, const void* pData, std::int32_t nLen) {
    const CLockGuard guard(m_mtxSlots);
    if (m_pFixed->bUsed) {
        return false;
    }
    m_pFixed->Occupy(nCode, nLen);
    std::memcpy(m_pFixed->byData, pData, static_cast<std::size_t>(nLen));
    ++m_nFixedUsed;
    WakeCleaner();
    return true;
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
    for (std::int32_t nHandle = kFixedHandle; nHandle <= kSmallSlots; ++nHandle) {
        const Slot& slot = SlotAt(nHandle);
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

CMsgQueue::Slot& CMsgQueue::SlotAt(std::int32_t nHandle) {
    if (nHandle == kFixedHandle) {
        return *m_pFixed;
    }
    return SmallAt(nHandle);
}

CMsgQueue::SmallSlot& CMsgQueue::SmallAt(std::int32_t nHandle) {
    return *(m_pSmall.get() + (nHandle - kFirstSmallHandle));
}

const std::uint8_t* CMsgQueue::PayloadAt(std::int32_t nHandle) {
    return nHandle == kFixedHandle ? m_pFixed->byData : SmallAt(nHandle).pData.get();
}

// The slot behind nHandle when something waits in it; else null, and the code says why.
CMsgQueue::Slot* CMsgQueue::UsedSlot(std::int32_t nHandle) {
    if (!IsHandle(nHandle)) {
        Fail(MSG_ERR_ERRINDEX);
        return nullptr;
    }
    Slot& slot = SlotAt(nHandle);
    if (!slot.bUsed) {
        Fail(MSG_ERR_Common);
        return nullptr;
    }
    return &slot;
}

void CMsgQueue::ReleaseSlot(std::int32_t nHandle) {
    SlotAt(nHandle).bUsed = false;
    if (nHandle == kFixedHandle) {
        --m_nFixedUsed;
    } else {
        SmallAt(nHandle).pData.reset();
        --m_nSmallUsed;
    }
}

void CMsgQueue::ReleaseIfOld(std::int32_t nHandle, std::int64_t nNowMs) {
    const Slot& slot = SlotAt(nHandle);
    if (slot.bUsed && nNowMs - slot.nPostedMs > kExpiryMs) {
        ReleaseSlot(nHandle);
    }
}
