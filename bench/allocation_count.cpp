#include "allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<uint64_t> allocations{0};

}  // namespace

// A file of their own keeps these out of the inliner's sight, which would otherwise pair a visible
// free with an unseen operator new and warn.
void* operator new(size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}

uint64_t ox::bench::allocation_count() {
    return allocations;
}
