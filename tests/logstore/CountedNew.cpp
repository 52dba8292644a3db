#include "logstore/CountedNew.h"

#include <cstdlib>
#include <new>

thread_local bool t_bCountsNew = false;
std::atomic<int> g_nCountedAllocations{0};

// The sanitizers bring this one, too, and it would not go with the operators below.
void* operator new(std::size_t nBytes, const std::nothrow_t& /*unused*/) noexcept {
    g_nCountedAllocations += t_bCountsNew ? 1 : 0;
    return std::malloc(nBytes);
}

void* operator new(std::size_t nBytes) {
    void* p = operator new(nBytes, std::nothrow);
    if (p == nullptr) {
        throw std::bad_alloc();
    }
    return p;
}

void operator delete(void* p) noexcept {
    std::free(p);
}

void operator delete(void* p, std::size_t /*nBytes*/) noexcept {
    std::free(p);
}
