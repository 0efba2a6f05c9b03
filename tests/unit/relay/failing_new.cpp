#include "failing_new.h"

#include <cstdlib>
#include <new>

namespace {

thread_local int countdown = 0; // the allocation that takes it from 1 to 0 fails

bool fails() {
    return countdown > 0 && --countdown == 0;
}

void* allocate(std::size_t size) {
    void* const block = fails() ? nullptr : std::malloc(size > 0 ? size : 1);
    if (!block)
        throw std::bad_alloc();
    return block;
}

} // namespace

FailingNew::FailingNew(int nth) {
    countdown = nth;
}

FailingNew::~FailingNew() {
    countdown = 0;
}

bool FailingNew::happened() const {
    return countdown == 0;
}

#pragma GCC diagnostic ignored "-Wmissing-declarations"
extern "C" void* __real_aligned_alloc(std::size_t alignment, std::size_t size);
extern "C" void* __wrap_aligned_alloc(std::size_t alignment, std::size_t size) {
    return fails() ? nullptr : __real_aligned_alloc(alignment, size);
}

void* operator new(std::size_t size) {
    return allocate(size);
}

// Or a sanitizer's own would give what the delete below must not take.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return fails() ? nullptr : std::malloc(size > 0 ? size : 1);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
