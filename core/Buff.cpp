#include "core/Buff.h"

#include <algorithm>
#include <cstring>

#include "link/CmdFrame.h"
#include "link/UploadFrame.h"

namespace {

// Both kinds of frame begin with a lead byte and a 32-bit length, little-endian.
constexpr auto kLengthOffset = static_cast<std::int32_t>(kCmdLengthOffset);
constexpr std::int32_t kHeadBytes = kLengthOffset + 4;
static_assert(kUmLengthOffset == kCmdLengthOffset && kUmFrameHeadBytes == kHeadBytes);

}  // namespace

CBuff::CBuff(std::int32_t nSize)
    : m_nSize(nSize), m_pData(std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(nSize))) {
}

CBuff::~CBuff() = default;

std::int32_t CBuff::Write(const void* pData, std::int32_t nLen) {
    if (nLen <= 0 || nLen > GetFree()) {
        return 0;
    }
    const auto* pFrom = static_cast<const std::uint8_t*>(pData);
    const std::int32_t nFirst = std::min(nLen, m_nSize - m_nWrite);
    std::memcpy(m_pData.get() + m_nWrite, pFrom, static_cast<std::size_t>(nFirst));
    std::memcpy(m_pData.get(), pFrom + nFirst, static_cast<std::size_t>(nLen - nFirst));
    m_nUsed += nLen;
    m_nWrite = IndexAt(m_nUsed);
    return nLen;
}

std::int32_t CBuff::Peek(void* pDest, std::int32_t nMax) const {
    const std::int32_t nLen = std::min(nMax, m_nUsed);
    if (nLen <= 0) {
        return 0;
    }
    auto* pTo = static_cast<std::uint8_t*>(pDest);
    const std::int32_t nFirst = std::min(nLen, m_nSize - m_nRead);
    std::memcpy(pTo, m_pData.get() + m_nRead, static_cast<std::size_t>(nFirst));
    std::memcpy(pTo + nFirst, m_pData.get(), static_cast<std::size_t>(nLen - nFirst));
    return nLen;
}

std::int32_t CBuff::Skip(std::int32_t nCount) {
    m_nRead = IndexAt(nCount);
    m_nUsed -= nCount;
    return m_nRead;
}

void CBuff::Reset() {
    m_nRead = 0;
    m_nWrite = 0;
    m_nUsed = 0;
}

std::int32_t CBuff::CheckFeFrame() const {
    // The length counts the payload only.
    return CheckFrame(CMD_LEAD_BYTE, 0, kCmdMaxPayloadBytes, kCmdHeadBytes);
}

std::int32_t CBuff::CheckF1Frame() const {
    // The length counts the whole frame.
    return CheckFrame(UM_LEAD_BYTE, kUmMinFrameBytes, kUmMaxFrameBytes, 0);
}

std::int32_t CBuff::FindCrLf() const {
    for (std::int32_t nOffset = 0; nOffset < m_nUsed - 1; ++nOffset) {
        if (ByteAt(nOffset) == '\r' && ByteAt(nOffset + 1) == '\n') {
            return nOffset;
        }
    }
    return -1;
}

std::int32_t CBuff::FindX() const {
    for (std::int32_t nOffset = 0; nOffset < m_nUsed; ++nOffset) {
        if (ByteAt(nOffset) == 'x' || ByteAt(nOffset) == 'X') {
            return nOffset;
        }
    }
    return -1;
}

std::int32_t CBuff::IndexAt(std::int32_t nOffset) const {
    const std::int32_t nToEnd = m_nSize - m_nRead;  // no sum that could overflow
    return nOffset < nToEnd ? m_nRead + nOffset : nOffset - nToEnd;
}

std::uint8_t CBuff::ByteAt(std::int32_t nOffset) const {
    return *(m_pData.get() + IndexAt(nOffset));
}

std::uint32_t CBuff::LoadLe32At(std::int32_t nOffset) const {
    std::uint32_t nValue = 0;
    for (std::int32_t nByte = 0; nByte < 4; ++nByte) {
        nValue |= static_cast<std::uint32_t>(ByteAt(nOffset + nByte)) << (8 * nByte);
    }
    return nValue;
}

std::int32_t CBuff::CheckFrame(std::uint8_t byLead, std::uint32_t nShortest, std::uint32_t nLongest,
                               std::int32_t nUncounted) const {
    if (m_nUsed == 0) {
        return 0;
    }
    if (ByteAt(0) != byLead) {
        return -1;
    }
    if (m_nUsed < kHeadBytes) {
        return 0;
    }
    const std::uint32_t nLength = LoadLe32At(kLengthOffset);
    if (nLength < nShortest || nLength > nLongest) {
        return -1;
    }
    const std::int32_t nFrame = static_cast<std::int32_t>(nLength) + nUncounted;
    return m_nUsed >= nFrame ? nFrame : 0;
}
