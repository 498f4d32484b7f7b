// Memory that runs out when a test wants it to.
#include "support/failing_new.h"

#include <cstdlib>
#include <new>

namespace {

thread_local FailingNew* current = nullptr;

}  // namespace

bool AllocationFails() {
  if (current == nullptr) return false;
  const int number = ++current->allocations;
  const bool fails = current->staysOut_ ? number >= current->failing_ : number == current->failing_;
  if (fails) ++current->failures;
  return fails;
}

FailingNew::FailingNew(int failingAllocation, bool fromThereOn)
    : failing_(failingAllocation), staysOut_(fromThereOn) {
  current = this;
}

FailingNew::~FailingNew() { current = nullptr; }

void* operator new(size_t size) {
  void* const memory = AllocationFails() ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* operator new[](size_t size) { return operator new(size); }

void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return AllocationFails() ? nullptr : std::malloc(size);
}

void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return operator new(size, std::nothrow);
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete[](void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, size_t) noexcept { std::free(memory); }

void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
