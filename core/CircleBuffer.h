// Byte ring through which real-time log records travel from the intake thread to the console
// thread. It clips: a write or read moves what fits and reports how much that was. One byte always
// stays free, so that a full ring and an empty one differ.
//
// Threads: the operations take no lock by themselves. The two users hold Lock() around a whole
// compound (free space, write, wake-up; peek, skip), so that no record is ever seen half written.
// Init and Release belong to main, before the workers start and after they have ended.
#pragma once

#include <cstdint>
#include <memory>

#include "core/Lock.h"

class CAPABILITY("mutex") CCircleBuffer {
public:
    CCircleBuffer() = default;
    CCircleBuffer(const CCircleBuffer&) = delete;
    CCircleBuffer& operator=(const CCircleBuffer&) = delete;

    // Gives the ring nSize bytes of storage in place of what it had; nSize - 1 of them are usable.
    // The indices keep their values, or both restart at 0 when one would lie outside. Returns 1, or
    // 0 when there is no memory: the ring is then without storage.
    [[nodiscard]] int Init(std::uint32_t nSize);

    // Frees the storage. Until the next Init the ring holds nothing and accepts nothing.
    void Release();

    std::uint32_t GetUsed() const REQUIRES(this);  // bytes held
    std::uint32_t GetFree() const REQUIRES(this);  // bytes that can still be written

    // Appends the first min(nLen, GetFree()) bytes of pData and returns their number.
    std::uint32_t Write(const void* pData, std::uint32_t nLen) REQUIRES(this);

    // Takes the oldest min(nLen, GetUsed()) bytes out into pDest and returns their number.
    std::uint32_t Read(void* pDest, std::uint32_t nLen) REQUIRES(this);

    // The same copy, and the bytes stay held.
    std::uint32_t Peek(void* pDest, std::uint32_t nLen) const REQUIRES(this);

    // Drops the oldest min(nLen, GetUsed()) bytes and returns their number.
    std::uint32_t Skip(std::uint32_t nLen) REQUIRES(this);

    // Whether the console was told of records and has not looked at them since. Whoever puts
    // records in tells it once for all of them.
    bool IsReaderTold() const REQUIRES(this) { return m_bReaderTold; }
    void SetReaderTold(bool bTold) REQUIRES(this) { m_bReaderTold = bTold; }

    // Both return the result of the mutex call, 0. CLockGuard works on the ring.
    int Lock() ACQUIRE();
    int Unlock() RELEASE();

    const std::uint8_t* GetBuffer() const { return m_pBuf.get(); }  // null: no storage

private:
    std::uint32_t Advance(std::uint32_t nIndex, std::uint32_t nCount) const;

    bool m_bReaderTold = false;
    std::uint32_t m_nSize = 0;   // capacity in bytes; 0: no storage
    std::uint32_t m_nRead = 0;   // index of the oldest byte, below m_nSize while there is storage
    std::uint32_t m_nWrite = 0;  // index where the next byte goes, likewise
    std::unique_ptr<std::uint8_t[]> m_pBuf;
    CLock m_lock;
};

extern CCircleBuffer g_CircleBuffer;
