// Owner of a descriptor that lives in one function or until it is handed on.
#pragma once

#include <unistd.h>

#include <utility>

class CUniqueFd {
public:
    explicit CUniqueFd(int nDescriptor = -1) : m_nDescriptor(nDescriptor) {}
    ~CUniqueFd() { Reset(); }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;
    CUniqueFd(CUniqueFd&& other) noexcept : m_nDescriptor(other.Release()) {}
    CUniqueFd& operator=(CUniqueFd&& other) noexcept {
        Reset(other.Release());
        return *this;
    }

    int Get() const { return m_nDescriptor; }
    bool IsOpen() const { return m_nDescriptor >= 0; }

    // Gives the descriptor away; the caller closes it.
    [[nodiscard]] int Release() { return std::exchange(m_nDescriptor, -1); }

    // Closes what is held and takes nDescriptor instead.
    void Reset(int nDescriptor = -1) {
        if (m_nDescriptor >= 0) {
            close(m_nDescriptor);
        }
        m_nDescriptor = nDescriptor;
    }

private:
    int m_nDescriptor;  // -1: none
};
