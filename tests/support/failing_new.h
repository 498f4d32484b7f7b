// Memory that runs out when a test wants it to.
#pragma once

// Stands in for operator new of the whole program while it lives: the allocation
// of this number, counted from 1, fails, and with fromThereOn all after it too.
//
// Threads: only allocations of the thread that made it count and fail. The test
// framework allocates as well: check nothing while this lives.
class FailingNew {
 public:
  explicit FailingNew(int failingAllocation, bool fromThereOn = true);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  // How many allocations were asked for so far.
  int allocations = 0;
  // How many of them failed.
  int failures = 0;

 private:
  friend bool AllocationFails();

  int failing_;
  bool staysOut_;
};
