#include "content/digests.h"

#include <cstdint>
#include <new>
#include <utility>

namespace orvexscan {
namespace {

uint8_t* DigestAt(size_t place, metadata_output_s* answer) {
  static_assert(kDigestBytes[0] == sizeof answer->digest16);
  static_assert(kDigestBytes[1] == sizeof answer->digest20);
  static_assert(kDigestBytes[2] == sizeof answer->digest32);
  if (place == 0) return answer->digest16;
  return place == 1 ? answer->digest20 : answer->digest32;
}

}  // namespace

Digests::Digests(const DigestChoice& choice) {
  for (size_t place = 0; place < kDigestPlaces; ++place) {
    if (choice[place] == NID_undef) continue;
    Running one{place, nullptr, nullptr};
    one.digest.reset(EVP_MD_fetch(nullptr, OBJ_nid2sn(choice[place]), nullptr));
    RequireDigest(one.digest != nullptr);
    one.context.reset(EVP_MD_CTX_new());
    if (!one.context) throw std::bad_alloc();
    running_.push_back(std::move(one));
  }
  Start();
}

void Digests::Start() {
  for (const Running& one : running_) {
    RequireDigest(EVP_DigestInit_ex(one.context.get(), one.digest.get(), nullptr) == 1);
  }
}

void Digests::Add(const unsigned char* bytes, size_t count) {
  for (const Running& one : running_) {
    RequireDigest(EVP_DigestUpdate(one.context.get(), bytes, count) == 1);
  }
}

void Digests::Finish(metadata_output_s* answer) {
  for (const Running& one : running_) {
    RequireDigest(EVP_MD_get_size(one.digest.get()) == static_cast<int>(kDigestBytes[one.place]));
    RequireDigest(EVP_DigestFinal_ex(one.context.get(), DigestAt(one.place, answer), nullptr) == 1);
    answer->queryFlags |= kDigestParts[one.place];
  }
}

}  // namespace orvexscan
