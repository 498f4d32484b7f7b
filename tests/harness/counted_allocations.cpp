// What this thread allocates.
#include "harness/counted_allocations.h"

#include <errno.h>
#include <malloc.h>

// The system's own functions under their other names.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* memory);
}

namespace {

thread_local Allocations ofThisThread;

// The allocator stores the size in front of each block.
size_t Booked(void* memory) { return malloc_usable_size(memory) + sizeof(size_t); }

void* Made(void* memory) {
  if (memory == nullptr) return memory;
  ++ofThisThread.made;
  ofThisThread.bytesHeld += Booked(memory);
  return memory;
}

void Freed(void* memory) {
  if (memory == nullptr) return;
  ++ofThisThread.freed;
  ofThisThread.bytesHeld -= Booked(memory);
}

}  // namespace

Allocations AllocationsOfThisThread() { return ofThisThread; }

extern "C" {

void* malloc(size_t size) noexcept { return Made(__libc_malloc(size)); }

void* calloc(size_t count, size_t size) noexcept { return Made(__libc_calloc(count, size)); }

void* realloc(void* memory, size_t size) noexcept {
  const size_t before = memory == nullptr ? 0 : Booked(memory);
  void* const moved = __libc_realloc(memory, size);
  // Out of memory: the old block is still there.
  if (moved == nullptr && size != 0) return moved;
  if (memory != nullptr) {
    ++ofThisThread.freed;
    ofThisThread.bytesHeld -= before;
  }
  return Made(moved);
}

void* memalign(size_t alignment, size_t size) noexcept {
  return Made(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) noexcept { return memalign(alignment, size); }

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
  *memory = memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

void free(void* memory) noexcept {
  Freed(memory);
  __libc_free(memory);
}

}  // extern "C"
