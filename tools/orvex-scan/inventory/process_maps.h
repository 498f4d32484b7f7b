// The files that running processes have mapped.
#pragma once

#include <string>

#include "inventory/inventory.h"

namespace orvexscan {

/// Adds every regular file mapped by a process to *inventory, process by process in the
/// order of their numbers, each file once for each process that maps it.
///
/// proc is where the process file system is mounted. A process that ends meanwhile is
/// passed over. Processes that may not be looked at and mapped files that have been
/// deleted since are told in a note: a deleted file has no name to ask about. Files are
/// looked up by our own names for them; a process in another mount namespace may mean
/// another file by the same name.
void AddMappedFiles(const std::string& proc, Inventory* inventory);

/// The path in one line of a maps file; empty for memory that belongs to no file.
std::string PathInMapsLine(const std::string& line);

}  // namespace orvexscan
