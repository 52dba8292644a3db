#include "logstore/CountedNew.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> g_nAllocations{0};
thread_local bool g_bCounts = false;

}  // namespace

void CountAllocationsOfThisThread() {
    g_bCounts = true;
}

int CountedAllocations() {
    return g_nAllocations;
}

void* operator new(std::size_t nBytes) {
    if (g_bCounts) {
        ++g_nAllocations;
    }
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
