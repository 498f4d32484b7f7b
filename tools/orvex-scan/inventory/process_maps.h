// The files that running processes have mapped.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inventory/inventory.h"

namespace orvexscan {

// Adds every regular file mapped by a process to *inventory, process by process in the
// order of their numbers, each file once for each process that maps it.
//
// proc is where the process file system is mounted. A file is visited by a name that leads to the
// very file that is mapped: its name here if it does, otherwise its name in the process, below
// PROC/PID/root. A process that exits in between is skipped. Notes report processes that may not be
// inspected, files reachable only through a process, and files that no name leads to any more.
void AddMappedFiles(const std::string& proc, Inventory* inventory);

// A file in one line of a maps file.
struct MappedFile {
  uint64_t device = 0;
  uint64_t inode = 0;
  // Its possible names, likeliest first: the kernel writes a newline as \012 and leaves backslashes
  // alone. None for memory that belongs to no file.
  std::vector<std::string> names;
};

// Reads a line, which may hold anything: programs choose the names of their files.
MappedFile ParseMapsLine(const std::string& line);

}  // namespace orvexscan
