// An open file's number, closed when it is no longer needed.
#pragma once

#include <string>

namespace orvexscan {

// Ownership: closes what it holds.
// Threads: as any object.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return number_; }

 private:
  const int number_;
};

// Opens what path names, without waiting for anybody whatever it is. Throws FileFailure:
// kChanged for a link that is not to be followed, as the caller has looked before.
Descriptor OpenToRead(const std::string& path, bool followLinks);

}  // namespace orvexscan
