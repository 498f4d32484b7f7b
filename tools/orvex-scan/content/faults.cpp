#include "content/faults.h"

#include <algorithm>

namespace orvexscan {

void AddFault(const std::string& fault, std::vector<std::string>* faults) {
  if (faults->size() > kMostFaults) return;
  if (std::find(faults->begin(), faults->end(), fault) != faults->end()) return;
  faults->push_back(faults->size() < kMostFaults ? fault : "there are more faults");
}

}  // namespace orvexscan
