// One story, run by the engine and by its model.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "model/operation.h"

struct Difference {
  size_t operation;  // where the step began
  std::string text;  // what either engine showed
};

// Where they differ first, if they do. Uses the working directory.
std::optional<Difference> FindDifference(const Operations& operations);

// A number for all that the engine shows of a story, the same on every target.
uint64_t DigestOf(const Operations& operations);
