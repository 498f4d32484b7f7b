#include "content/digest_choice.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>

#include "content/digests.h"
#include "terminal/printable.h"

namespace orvexscan {
namespace {

// The place for this algorithm; kDigestPlaces if there is none. One of variable length has none:
// its name would not say which digest it is.
size_t PlaceOf(const EVP_MD* digest) {
  if (EVP_MD_get_type(digest) == NID_undef) return kDigestPlaces;
  if ((EVP_MD_get_flags(digest) & EVP_MD_FLAG_XOF) != 0) return kDigestPlaces;
  const auto bytes = static_cast<size_t>(std::max(EVP_MD_get_size(digest), 0));
  const auto* const found = std::find(kDigestBytes.begin(), kDigestBytes.end(), bytes);
  return static_cast<size_t>(found - kDigestBytes.begin());
}

std::set<std::string> KnownNames() {
  std::set<std::string> names;
  EVP_MD_do_all_provided(
      nullptr,
      [](EVP_MD* digest, void* all) {
        if (PlaceOf(digest) == kDigestPlaces) return;
        static_cast<std::set<std::string>*>(all)->insert(NameOfDigest(EVP_MD_get_type(digest)));
      },
      &names);
  return names;
}

}  // namespace

std::string NameOfDigest(int algorithm) {
  std::string name = OBJ_nid2sn(algorithm);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return name;
}

std::vector<std::string> NamesOf(const DigestChoice& choice) {
  std::vector<std::string> names;
  for (const int algorithm : choice) {
    if (algorithm != NID_undef) names.push_back(NameOfDigest(algorithm));
  }
  return names;
}

uint32_t PartsOf(const DigestChoice& choice) {
  uint32_t parts = 0;
  for (size_t place = 0; place < kDigestPlaces; ++place) {
    if (choice[place] != NID_undef) parts |= kDigestParts[place];
  }
  return parts;
}

DigestChoice DigestsNamed(const std::string& names) {
  DigestChoice choice{};
  std::istringstream list(names + ",");
  for (std::string name; std::getline(list, name, ',');) {
    const std::unique_ptr<EVP_MD, FreeDigest> digest(EVP_MD_fetch(nullptr, name.c_str(), nullptr));
    const size_t place = digest ? PlaceOf(digest.get()) : kDigestPlaces;
    if (place == kDigestPlaces) {
      throw std::invalid_argument(
          fmt::format("'{}' is not one of {}", Printable(name), fmt::join(KnownNames(), ", ")));
    }
    if (choice[place] != NID_undef) {
      throw std::invalid_argument(
          fmt::format("'{}' and '{}' have {} bytes each, and the engine keeps one digest of that "
                      "length",
                      NameOfDigest(choice[place]), Printable(name), kDigestBytes[place]));
    }
    choice[place] = EVP_MD_get_type(digest.get());
  }
  return choice;
}

}  // namespace orvexscan
