#include "support/AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bool countingAllocations = false;
thread_local std::size_t allocationCount = 0;

void* allocate(std::size_t size) {
    if (countingAllocations) ++allocationCount;
    if (size == 0) size = 1;
    if (void* memory = std::malloc(size)) return memory;
    throw std::bad_alloc();
}

void* allocateOrNull(std::size_t size) noexcept {
    if (countingAllocations) ++allocationCount;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace velmora::testing {

void AllocationCounter::start() {
    allocationCount = 0;
    countingAllocations = true;
}

std::size_t AllocationCounter::stop() {
    countingAllocations = false;
    return allocationCount;
}

}  // namespace velmora::testing

void* operator new(std::size_t size) {
    return allocate(size);
}
void* operator new[](std::size_t size) {
    return allocate(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
