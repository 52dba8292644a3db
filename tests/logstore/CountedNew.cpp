#include "logstore/CountedNew.h"

#include <cstdlib>
#include <new>

thread_local bool t_bCountsNew = false;
std::atomic<int> g_nCountedAllocations{0};

void* operator new(std::size_t nBytes) {
    g_nCountedAllocations += t_bCountsNew ? 1 : 0;
    void* p = std::malloc(nBytes);
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
