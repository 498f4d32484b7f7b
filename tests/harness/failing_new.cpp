// Memory that runs out when a test wants it to.
#include "harness/failing_new.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <stdexcept>

#include "harness/sanitizers.h"

#if defined(ORVEXENG_FAIL_MALLOC) && !ORVEXENG_CHECKS_MEMORY && !ORVEXENG_CHECKS_THREADS
#define ORVEXENG_REPLACE_MALLOC
#endif

namespace {

thread_local FailingNew* current = nullptr;

std::atomic<long> live{0};

}  // namespace

bool AllocationFails() {
  if (current == nullptr) return false;
  const int number = ++current->allocations;
  const bool fails = current->staysOut_ ? number >= current->failing_ : number == current->failing_;
  if (fails) ++current->failures;
  return fails;
}

#ifdef ORVEXENG_REPLACE_MALLOC

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) { return AllocationFails() ? nullptr : __libc_malloc(size); }

void* calloc(size_t count, size_t size) {
  return AllocationFails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  return AllocationFails() ? nullptr : __libc_realloc(memory, size);
}
}

#endif

namespace {

void* Allocate(size_t size) {
#ifndef ORVEXENG_REPLACE_MALLOC
  if (AllocationFails()) return nullptr;
#endif
  void* const memory = std::malloc(size);
  if (memory != nullptr) ++live;
  return memory;
}

void Free(void* memory) {
  if (memory == nullptr) return;
  --live;
  std::free(memory);
}

}  // namespace

FailingNew::FailingNew(int failingAllocation, bool fromThereOn)
    : failing_(failingAllocation), staysOut_(fromThereOn) {
  current = this;
}

FailingNew::~FailingNew() { current = nullptr; }

MemoryForHost::MemoryForHost() : paused_(current) { current = nullptr; }

MemoryForHost::~MemoryForHost() { current = paused_; }

long LiveAllocations() { return live; }

void* operator new(size_t size) {
  void* const memory = Allocate(size);
  if (memory == nullptr && current != nullptr && current->throwsLengthError) {
    const MemoryForHost forTheMessage;
    throw std::length_error("a text too long for a string");
  }
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) { return operator new(size); }

void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }

void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }

void* operator new(size_t size, std::align_val_t alignment) {
  void* const memory =
      AllocationFails() ? nullptr : std::aligned_alloc(static_cast<size_t>(alignment), size);
  if (memory == nullptr) throw std::bad_alloc();
  ++live;
  return memory;
}

void* operator new[](size_t size, std::align_val_t alignment) {
  return operator new(size, alignment);
}

void operator delete(void* memory) noexcept { Free(memory); }

void operator delete(void* memory, std::align_val_t) noexcept { Free(memory); }

void operator delete(void* memory, size_t, std::align_val_t) noexcept { Free(memory); }

void operator delete[](void* memory, std::align_val_t) noexcept { Free(memory); }

void operator delete[](void* memory, size_t, std::align_val_t) noexcept { Free(memory); }

void operator delete[](void* memory) noexcept { Free(memory); }

void operator delete(void* memory, size_t) noexcept { Free(memory); }

void operator delete[](void* memory, size_t) noexcept { Free(memory); }
