// Memory that runs out when a test wants it to.
#pragma once

// Stands in for operator new of the whole program while it lives: the allocation
// of this number, counted from 1, fails, and with fromThereOn all after it too.
// In a program compiled with ORVEXENG_FAIL_MALLOC it stands in for malloc, calloc
// and realloc below operator new, so that what the C library allocates fails as
// well; not under a sanitizer, whose malloc cannot be replaced.
//
// Threads: only allocations of the thread that made it count and fail. The test
// framework allocates as well: check nothing while this lives.
class FailingNew {
 public:
  explicit FailingNew(int failingAllocation, bool fromThereOn = true);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  // Whether operator new fails with std::length_error, in place of a text longer than a
  // string can be: two gigabytes on one target and more than there is on the other.
  bool throwsLengthError = false;
  // How many allocations were asked for so far.
  int allocations = 0;
  // How many of them failed.
  int failures = 0;

 private:
  friend bool AllocationFails();

  int failing_;
  bool staysOut_;
};

// Memory that is available again within a scope: a host's own, in the middle of a
// call that runs out of it.
class MemoryForHost {
 public:
  MemoryForHost();
  ~MemoryForHost();
  MemoryForHost(const MemoryForHost&) = delete;
  MemoryForHost& operator=(const MemoryForHost&) = delete;

 private:
  FailingNew* paused_;
};

// How many objects and arrays the whole program has allocated with new and not
// yet deleted.
long LiveAllocations();
