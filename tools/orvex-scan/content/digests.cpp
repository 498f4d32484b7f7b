#include "content/digests.h"

#include <new>
#include <stdexcept>

namespace orvexscan {
namespace {

void Require(int done) {
  if (done != 1) throw std::runtime_error("OpenSSL cannot calculate a digest");
}

template <size_t kLength>
void FinishInto(EVP_MD_CTX* context, uint8_t (&digest)[kLength]) {
  static_assert(kLength == 16 || kLength == 20 || kLength == 32, "a field for MD5, SHA-1, SHA-256");
  Require(EVP_MD_CTX_get_size(context) == static_cast<int>(kLength));
  Require(EVP_DigestFinal_ex(context, digest, nullptr));
}

}  // namespace

Digests::Digests() : md5_(EVP_MD_CTX_new()), sha1_(EVP_MD_CTX_new()), sha256_(EVP_MD_CTX_new()) {
  if (!md5_ || !sha1_ || !sha256_) throw std::bad_alloc();
  Start();
}

void Digests::Start() {
  Require(EVP_DigestInit_ex(md5_.get(), EVP_md5(), nullptr));
  Require(EVP_DigestInit_ex(sha1_.get(), EVP_sha1(), nullptr));
  Require(EVP_DigestInit_ex(sha256_.get(), EVP_sha256(), nullptr));
}

void Digests::Add(const unsigned char* bytes, size_t count) {
  for (EVP_MD_CTX* context : {md5_.get(), sha1_.get(), sha256_.get()}) {
    Require(EVP_DigestUpdate(context, bytes, count));
  }
}

void Digests::Finish(metadata_output_s* answer) {
  FinishInto(md5_.get(), answer->digest16);
  FinishInto(sha1_.get(), answer->digest20);
  FinishInto(sha256_.get(), answer->digest32);
  answer->queryFlags |= QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32;
}

}  // namespace orvexscan
