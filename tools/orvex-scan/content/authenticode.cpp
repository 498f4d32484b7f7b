#include "content/authenticode.h"

#include <algorithm>
#include <map>
#include <memory>

#include "content/digests.h"

namespace orvexscan {
namespace {

constexpr size_t kPieceBytes = 64 << 10;

std::vector<unsigned char> DigestOf(FileReader* file, const PeLayout& layout, const EVP_MD* kind) {
  const std::unique_ptr<EVP_MD_CTX, FreeDigest> context(EVP_MD_CTX_new());
  RequireDigest(context && EVP_DigestInit_ex(context.get(), kind, nullptr) == 1);
  std::vector<unsigned char> piece(kPieceBytes);
  const auto add = [&](uint64_t from, uint64_t to) {
    while (from < to) {
      const size_t count = static_cast<size_t>(std::min<uint64_t>(to - from, piece.size()));
      const size_t got = file->ReadAt(from, piece.data(), count);
      RequireDigest(EVP_DigestUpdate(context.get(), piece.data(), got) == 1);
      if (got < count) return;
      from += count;
    }
  };
  add(0, layout.checksumAt);
  add(layout.checksumAt + 4, layout.directoryAt);
  add(layout.directoryAt + 8, layout.tableAt);
  add(layout.tableAt + layout.tableSize, file->size());
  std::vector<unsigned char> digest(static_cast<size_t>(EVP_MD_get_size(kind)));
  RequireDigest(EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1);
  return digest;
}

// The algorithms that signatures use.
const EVP_MD* DigestFor(int algorithm) {
  switch (algorithm) {
    case NID_md5:
      return EVP_md5();
    case NID_sha1:
      return EVP_sha1();
    case NID_sha256:
      return EVP_sha256();
    case NID_sha384:
      return EVP_sha384();
    case NID_sha512:
      return EVP_sha512();
    default:
      return nullptr;
  }
}

}  // namespace

const char* NameOf(SignatureMatch match) {
  switch (match) {
    case SignatureMatch::kNoSignature:
      return "";
    case SignatureMatch::kUnchecked:
      return "unchecked";
    case SignatureMatch::kMatches:
      return "matches";
    case SignatureMatch::kDoesNotMatch:
      return "does not match";
  }
  return "";
}

SignatureMatch MatchSignatures(FileReader* file, const PeLayout& layout,
                               const std::vector<SignedDigest>& signatures) {
  if (signatures.empty()) return SignatureMatch::kNoSignature;
  std::map<int, std::vector<unsigned char>> digests;
  bool unchecked = false;
  for (const SignedDigest& signature : signatures) {
    const EVP_MD* kind = DigestFor(signature.algorithm);
    if (kind == nullptr) {
      unchecked = true;
      continue;
    }
    const auto [digest, isNew] = digests.emplace(signature.algorithm, signature.digest);
    if (isNew) digest->second = DigestOf(file, layout, kind);
    if (digest->second != signature.digest) return SignatureMatch::kDoesNotMatch;
  }
  return unchecked ? SignatureMatch::kUnchecked : SignatureMatch::kMatches;
}

}  // namespace orvexscan
