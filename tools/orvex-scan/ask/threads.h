// The threads of a scan.
#pragma once

#include <thread>
#include <utility>
#include <vector>

namespace orvexscan {

// Threads that are joined on every way out.
class Threads {
 public:
  Threads() = default;
  ~Threads() { Join(); }
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;

  template <typename Work>
  void Start(Work work) {
    threads_.emplace_back(std::move(work));
  }
  void Join() {
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  std::vector<std::thread> threads_;
};

}  // namespace orvexscan
