// The three digests of a file, fed by one read of it.
#pragma once

#include <openssl/evp.h>

#include <cstddef>
#include <memory>

#include "orvexeng.h"

namespace orvexscan {

// MD5, SHA-1 and SHA-256 side by side.
//
// Threads: one at a time; each worker keeps its own and starts it anew for each file.
class Digests {
 public:
  // Throws std::runtime_error if OpenSSL has one of the algorithms switched off.
  Digests();

  void Start();
  void Add(const unsigned char* bytes, size_t count);
  // Stores the digests in *answer and marks them as present.
  void Finish(metadata_output_s* answer);

 private:
  struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  using Context = std::unique_ptr<EVP_MD_CTX, FreeContext>;

  Context md5_;
  Context sha1_;
  Context sha256_;
};

}  // namespace orvexscan
