// Caches that know at the start what an earlier scan found out.
#pragma once

#include "inventory/inventory.h"
#include "options.h"
#include "orvexeng.hpp"

namespace orvexscan {

/// Puts the answers of options.snapshot that still hold into both caches of the running
/// engine, and adds a note of how many they are. A snapshot that cannot be used is told in
/// a note and otherwise ignored.
///
/// An answer holds if the file is one of *inventory and its identity is the same today,
/// ctime included whatever the mode.
void WarmStart(orvexeng::engine* engine, const Options& options, Inventory* inventory);

}  // namespace orvexscan
