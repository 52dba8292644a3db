#include "core/FailingNew.h"

#include <cstddef>
#include <new>

namespace {

thread_local bool g_bExhausted = false;

}  // namespace

CFailingNew::CFailingNew() {
    g_bExhausted = true;
}

CFailingNew::~CFailingNew() {
    g_bExhausted = false;
}

void* operator new(std::size_t nSize, const std::nothrow_t& /*unused*/) noexcept {
    return g_bExhausted ? nullptr : ::operator new(nSize);
}

void* operator new[](std::size_t nSize, const std::nothrow_t& /*unused*/) noexcept {
    return g_bExhausted ? nullptr : ::operator new[](nSize);
}
