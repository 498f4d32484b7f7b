// What is wrong with a file, in a few sentences however much is wrong.
#pragma once

#include <string>
#include <vector>

namespace orvexscan {

// The most faults reported for one part of a file.
constexpr size_t kMostFaults = 8;

// Adds the fault unless it is there already. Beyond kMostFaults one last sentence says that there
// are more: a malicious file would otherwise fill memory and reports.
void AddFault(const std::string& fault, std::vector<std::string>* faults);

}  // namespace orvexscan
