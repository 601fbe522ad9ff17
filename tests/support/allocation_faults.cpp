// SPDX-License-Identifier: Apache-2.0
#include "allocation_faults.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "fault_scope.h"
#include "testkit_export.h"

extern "C" void *__real_malloc(std::size_t size);
extern "C" char *__real_strdup(const char *text);

namespace {

int allocationsBefore = -1; // negative: none fails
bool failAlways = false;
int failedAllocations = 0;
long blocks = 0;

bool fails() {
    if (!nelvo::testkit::FaultScope::allowed() || allocationsBefore < 0 || allocationsBefore-- > 0)
        return false;
    if (failAlways)
        allocationsBefore = 0;
    ++failedAllocations;
    return true;
}

void *allocate(std::size_t size) noexcept {
    void *memory = fails() ? nullptr : __real_malloc(size != 0 ? size : 1);
    blocks += memory != nullptr;
    return memory;
}

void release(void *memory) noexcept {
    blocks -= memory != nullptr;
    std::free(memory);
}

void *allocateOrThrow(std::size_t size) {
    if (void *memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

} // namespace

namespace nelvo::testkit {

void failAllocation(int nth, bool always) {
    allocationsBefore = nth - 1;
    failAlways = always;
    failedAllocations = 0;
}

int stopFailingAllocations() {
    allocationsBefore = -1;
    return failedAllocations;
}

long liveBlocks() {
    return blocks;
}

} // namespace nelvo::testkit

// Visible, because the linker finds that the sanitizers' library refers to malloc and strdup too.
extern "C" TESTKIT_API void *__wrap_malloc(std::size_t size);
extern "C" TESTKIT_API char *__wrap_strdup(const char *text);

void *__wrap_malloc(std::size_t size) {
    return fails() ? nullptr : __real_malloc(size);
}
char *__wrap_strdup(const char *text) {
    return fails() ? nullptr : __real_strdup(text);
}

void *operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void *operator new[](std::size_t size) {
    return allocateOrThrow(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *memory) noexcept {
    release(memory);
}
void operator delete[](void *memory) noexcept {
    release(memory);
}
void operator delete(void *memory, std::size_t) noexcept {
    release(memory);
}
void operator delete[](void *memory, std::size_t) noexcept {
    release(memory);
}
void operator delete(void *memory, const std::nothrow_t &) noexcept {
    release(memory);
}
void operator delete[](void *memory, const std::nothrow_t &) noexcept {
    release(memory);
}
