// Byte ring of one TCP connection: received and not yet understood, or queued and not yet sent.
// A write is all or nothing, so a frame never stands half in the ring. The detectors tell whether a
// whole frame or line waits at the front; they consume nothing.
//
// Threads: no lock inside; a ring belongs to the thread that owns its connection.
#pragma once

#include <cstdint>
#include <memory>

class CBuff {
public:
    // nSize: capacity in bytes, 1 or more; all of it is usable.
    explicit CBuff(std::int32_t nSize);
    virtual ~CBuff();
    CBuff(const CBuff&) = delete;
    CBuff& operator=(const CBuff&) = delete;

    std::int32_t GetUsed() const { return m_nUsed; }            // bytes held
    std::int32_t GetFree() const { return m_nSize - m_nUsed; }  // bytes that a Write may have

    // Appends all nLen bytes and returns nLen; returns 0 and takes nothing when they do not fit or
    // nLen is negative.
    [[nodiscard]] std::int32_t Write(const void* pData, std::int32_t nLen);

    // Copies the oldest min(nMax, GetUsed()) bytes to pDest, leaves them held, returns their
    // number. A negative nMax copies nothing.
    [[nodiscard]] std::int32_t Peek(void* pDest, std::int32_t nMax) const;

    // Drops the oldest nCount bytes, 0..GetUsed(), and returns the new read index.
    std::int32_t Skip(std::int32_t nCount);

    // Drops everything held.
    void Reset();

    // Size in bytes of the command-link frame at the front (docs/protocols.md, "Command link");
    // 0: not all of it is here yet; -1: the front cannot be such a frame.
    [[nodiscard]] std::int32_t CheckFeFrame() const;

    // The same for a history-upload frame (docs/protocols.md, "History upload").
    [[nodiscard]] std::int32_t CheckF1Frame() const;

    // Offset from the front of the first CR that is followed by a LF; -1: none is held. A CR as the
    // last byte held waits for its LF.
    [[nodiscard]] std::int32_t FindCrLf() const;

    // Offset from the front of the first letter x, small or capital; -1: none is held.
    [[nodiscard]] std::int32_t FindX() const;

private:
    std::int32_t IndexAt(std::int32_t nOffset) const;      // nOffset from the front, 0..m_nSize
    std::uint8_t ByteAt(std::int32_t nOffset) const;       // nOffset below m_nUsed
    std::uint32_t LoadLe32At(std::int32_t nOffset) const;  // the four bytes may wrap
    std::int32_t CheckFrame(std::uint8_t byLead, std::uint32_t nShortest, std::uint32_t nLongest,
                            std::int32_t nUncounted) const;

    std::int32_t m_nSize;
    std::int32_t m_nRead = 0;   // index of the oldest byte
    std::int32_t m_nWrite = 0;  // index where the next byte goes
    std::int32_t m_nUsed = 0;   // a count, so full and empty never look alike
    std::unique_ptr<std::uint8_t[]> m_pData;
};
