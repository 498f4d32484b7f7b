// An owned file descriptor.
#pragma once

#include <string>

namespace orvexscan {

// Ownership: closes what it holds.
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

// Opens what path names without ever blocking. Throws FileFailure: kChanged for a link that is not
// to be followed, since the caller has already looked.
Descriptor OpenToRead(const std::string& path, bool followLinks);

}  // namespace orvexscan
