// The digests of a file, computed in one read.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <vector>

#include "content/digest_choice.h"
#include "orvexeng.h"

namespace orvexscan {

struct FreeDigest {
  void operator()(EVP_MD* digest) const { EVP_MD_free(digest); }
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

inline void RequireDigest(bool done) {
  if (!done) throw std::runtime_error("OpenSSL cannot calculate a digest");
}

// Computes the chosen digests side by side.
//
// Threads: one at a time; each worker keeps its own and restarts it for each file.
class Digests {
 public:
  // Throws std::runtime_error if OpenSSL has one of the algorithms switched off.
  explicit Digests(const DigestChoice& choice);

  void Start();
  void Add(const unsigned char* bytes, size_t count);
  // Stores the digests in *answer and marks them as present.
  void Finish(metadata_output_s* answer);

 private:
  struct Running {
    size_t place;
    std::unique_ptr<EVP_MD, FreeDigest> digest;
    std::unique_ptr<EVP_MD_CTX, FreeDigest> context;
  };

  std::vector<Running> running_;
};

}  // namespace orvexscan
