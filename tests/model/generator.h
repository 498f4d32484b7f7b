// Random stories.
#pragma once

#include <cstdint>

#include "model/operation.h"

// The same for one seed on every target.
Operations StoryOf(uint64_t seed);
