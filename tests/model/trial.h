// Stories tried in a process of their own, which may crash or hang.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "model/operation.h"

// After this long a story is taken to hang.
constexpr unsigned int kSecondsPerStory = 20;

// Runs body in a child process and tells how it ended: empty when body returned
// true, otherwise "a difference", "killed by signal 11" or the like. After
// allowedSeconds it is killed.
std::string RunApart(unsigned int allowedSeconds, const std::function<bool()>& body);

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

// As short a story that still fails as can be had by leaving out steps and
// zeroing bytes.
Operations Shrunk(Operations operations);

// What goes wrong in a failing story, with the story itself as the corpus
// keeps it.
std::string Report(const Operations& operations);
