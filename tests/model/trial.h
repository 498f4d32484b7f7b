// Stories tried in a process of their own, which may crash or hang.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "model/operation.h"

// A story that has used this much CPU time is taken to hang. Not wall-clock time: on
// a busy machine that goes to others. A story that blocks uses none, and ends with the
// time that ctest gives the whole test.
constexpr int kCpuSecondsPerStory = 20;

// From here on this process may use the CPU time of one story; then SIGPROF kills it.
// Called again, it starts over.
void LimitStory();

// Runs body in a child process and returns how it ended: empty if body returned
// true, otherwise "a difference", "killed by signal 11" or the like. The child has
// the CPU time of one story, unless body calls LimitStory for more.
std::string RunApart(const std::function<bool()>& body);

// A number that parent and child both see.
class SharedNumber {
 public:
  SharedNumber();
  ~SharedNumber();
  SharedNumber(const SharedNumber&) = delete;
  SharedNumber& operator=(const SharedNumber&) = delete;

  uint64_t& Get() { return *number_; }

 private:
  uint64_t* number_;
};

// Whether the story fails: differs, crashes or hangs.
bool Fails(const Operations& operations);

// The shortest story that still fails, found by leaving out steps and zeroing
// bytes.
Operations Shrunk(Operations operations);

// What goes wrong in a failing story, with the story in corpus form.
std::string Report(const Operations& operations);
