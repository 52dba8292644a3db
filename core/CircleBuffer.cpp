#include "core/CircleBuffer.h"

#include <algorithm>
#include <cstring>
#include <new>

CCircleBuffer g_CircleBuffer;

int CCircleBuffer::Init(std::uint32_t nSize) {
    Release();  // first, so that old and new never need memory together
    m_pBuf.reset(new (std::nothrow) std::uint8_t[nSize]);
    if (m_pBuf == nullptr) {
        return 0;
    }
    m_nSize = nSize;
    if (m_nRead >= nSize || m_nWrite >= nSize) {
        m_nRead = 0;
        m_nWrite = 0;
    }
    return 1;
}

void CCircleBuffer::Release() {
    m_pBuf.reset();
    m_nSize = 0;
}

std::uint32_t CCircleBuffer::GetUsed() const {
    if (m_nSize == 0) {
        return 0;
    }
    return m_nWrite >= m_nRead ? m_nWrite - m_nRead : m_nSize - (m_nRead - m_nWrite);
}

std::uint32_t CCircleBuffer::GetFree() const {
    return m_nSize == 0 ? 0 : m_nSize - GetUsed() - 1;
}

std::uint32_t CCircleBuffer::Write(const void* pData, std::uint32_t nLen) {
    const std::uint32_t nCount = std::min(nLen, GetFree());
    if (nCount == 0) {
        return 0;
    }
    const auto* pFrom = static_cast<const std::uint8_t*>(pData);
    const std::uint32_t nFirst = std::min(nCount, m_nSize - m_nWrite);
    std::memcpy(m_pBuf.get() + m_nWrite, pFrom, nFirst);
    std::memcpy(m_pBuf.get(), pFrom + nFirst, nCount - nFirst);
    m_nWrite = Advance(m_nWrite, nCount);
    return nCount;
}

std::uint32_t CCircleBuffer::Read(void* pDest, std::uint32_t nLen) {
    return Skip(Peek(pDest, nLen));
}

std::uint32_t CCircleBuffer::Peek(void* pDest, std::uint32_t nLen) const {
    const std::uint32_t nCount = std::min(nLen, GetUsed());
    if (nCount == 0) {
        return 0;
    }
    auto* pTo = static_cast<std::uint8_t*>(pDest);
    const std::uint32_t nFirst = std::min(nCount, m_nSize - m_nRead);
    std::memcpy(pTo, m_pBuf.get() + m_nRead, nFirst);
    std::memcpy(pTo + nFirst, m_pBuf.get(), nCount - nFirst);
    return nCount;
}

std::uint32_t CCircleBuffer::Skip(std::uint32_t nLen) {
    const std::uint32_t nCount = std::min(nLen, GetUsed());
    m_nRead = Advance(m_nRead, nCount);
    return nCount;
}

int CCircleBuffer::Lock() {
    return m_lock.Lock();
}

int CCircleBuffer::Unlock() {
    return m_lock.Unlock();
}

// nCount is at most m_nSize. An index never rests at the end of the storage: it goes on at 0.
std::uint32_t CCircleBuffer::Advance(std::uint32_t nIndex, std::uint32_t nCount) const {
    const std::uint32_t nToEnd = m_nSize - nIndex;
    return nCount < nToEnd ? nIndex + nCount : nCount - nToEnd;
}
