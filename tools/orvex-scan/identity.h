// Which file, in which state: what the engine's cache keys are made of.
#pragma once

#include <cstdint>
#include <string>

#include "orvexeng.h"

namespace orvexscan {

// All but the path. Two equal identities of one path mean the same content, as far
// as size and modification time can tell.
struct Identity {
  uint64_t size = 0;
  uint64_t mtimeNs = 0;  ///< since 1970; modulo 2^64 for a file older than that
  uint64_t device = 0;
  uint64_t inode = 0;

  bool operator==(const Identity& other) const;
  bool operator!=(const Identity& other) const { return !(*this == other); }
};

/// Looks at the file that path names, without opening it.
///
/// Throws FileFailure when it cannot be looked at or is no regular file; a link is
/// one only if followLinks is set.
Identity IdentityOf(const std::string& path, bool followLinks);

/// Looks at an open file. Throws FileFailure like the other one.
Identity IdentityOf(int descriptor);

/// The question about a file: every part the tool reports, with every field of the
/// identity in the key mask, so that a changed file is another entry.
///
/// A size or time of 0 means "not given" to the engine, which then never stores the
/// part. Asked for it would be answered in part for ever, so it is not asked for.
/// The record points into path, which must outlive it.
metadata_input_s QueryFor(const std::string& path, const Identity& identity);

}  // namespace orvexscan
