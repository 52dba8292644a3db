// The fuzzer's bytes, taken from the front to the end. Behind the end there are zeros, so that
// every input means something and a short one can stand for a long one.
//
// Threads: no lock inside; an object belongs to the function that made it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

class CInputBytes {
public:
    CInputBytes(const std::uint8_t* pData, std::size_t nLen) : m_pNext(pData), m_nLeft(nLen) {}

    // True while there are bytes for one more step of a script; a long one is cut: what it does is
    // not worth its time.
    bool BeginStep() { return m_nLeft > 0 && m_nSteps++ < kMostSteps; }

    std::uint8_t Byte() { return Number<std::uint8_t>(); }

    // -128 to 127.
    std::int32_t Signed() {
        const std::int32_t nByte = Byte();
        return nByte < 128 ? nByte : nByte - 256;
    }

    // A number of that type, as the processor has it.
    template <class Type>
    Type Number() {
        Type number{};
        Take(&number, sizeof(number));
        return number;
    }

    // 0 to nMost, made of two bytes.
    std::size_t UpTo(std::size_t nMost) { return Number<std::uint16_t>() % (nMost + 1); }

    // nLen bytes, the missing ones zero.
    std::string Bytes(std::size_t nLen) {
        std::string strBytes(nLen, '\0');
        Take(strBytes.data(), nLen);
        return strBytes;
    }

    // Bytes that are there, nMost of them at most.
    std::string Present(std::size_t nMost) { return Bytes(std::min(nMost, m_nLeft)); }

private:
    void Take(void* pTo, std::size_t nLen) {
        const std::size_t nTaken = std::min(nLen, m_nLeft);
        if (nTaken > 0) {
            std::memcpy(pTo, m_pNext, nTaken);
            m_pNext += nTaken;
            m_nLeft -= nTaken;
        }
    }

    static constexpr int kMostSteps = 100;

    const std::uint8_t* m_pNext;
    std::size_t m_nLeft;
    int m_nSteps = 0;
};
