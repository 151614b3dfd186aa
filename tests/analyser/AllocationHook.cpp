// Counts every heap allocation of this test binary: operator new directly, and the malloc family
// through the linker's --wrap (which also covers the analyser objects linked from the archive).
#include <atomic>
#include <cstdlib>
#include <new>

#include "AnalyserTestUtil.h"

namespace {
std::atomic<long> g_allocations{0};
}

extern "C" {
void* __real_malloc(size_t n);
void* __real_calloc(size_t n, size_t size);
void* __real_realloc(void* p, size_t n);

void* __wrap_malloc(size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_malloc(n);
}
void* __wrap_calloc(size_t n, size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_calloc(n, size);
}
void* __wrap_realloc(void* p, size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return __real_realloc(p, n);
}
}

void* operator new(size_t n) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}

namespace analyser_test {
long AllocationCount() {
    return g_allocations.load(std::memory_order_relaxed);
}
void ResetAllocationCount() {
    g_allocations.store(0, std::memory_order_relaxed);
}
}  // namespace analyser_test
