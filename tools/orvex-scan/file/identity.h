// Which file, in which state: what the engine's cache keys are made of.
#pragma once

#include <cstdint>
#include <string>

#include "orvexeng.h"

namespace orvexscan {

// How much of a file's state goes into the key of its answer.
enum class IdentityMode {
  kMtime,  // device, inode, size and mtime, which anyone who can write the file can set back
  kCtime,  // ctime as well, which nobody can set
  kStrict  // inode generation, birth time and mount as well, where the system has them
};

// The mode as written on the command line: "mtime", "ctime", "strict".
const char* NameOf(IdentityMode mode);

// All but the path. Two equal identities of one path mean the same content, as far
// as size and times can tell.
struct Identity {
  IdentityMode mode = IdentityMode::kCtime;
  uint64_t size = 0;
  uint64_t mtimeNs = 0;  // since 1970; modulo 2^64 for a file older than that
  uint64_t ctimeNs = 0;  // likewise; compared in every mode
  uint64_t device = 0;
  uint64_t inode = 0;
  // Strict mode only; 0 where the system does not provide them.
  uint64_t generation = 0;
  uint64_t birthNs = 0;
  uint64_t mount = 0;

  // Reported, but not compared: changing one of them changes ctime too.
  uint64_t permissions = 0;
  uint64_t owner = 0;
  uint64_t group = 0;
  uint64_t links = 0;

  bool operator==(const Identity& other) const;
  bool operator!=(const Identity& other) const { return !(*this == other); }
};

// Looks at the file that path names. Strict mode opens it, because only an open file has a
// generation to read; the others do not.
//
// Throws FileFailure if that fails or the file is not regular; a link counts as regular only if
// followLinks is set.
Identity IdentityOf(const std::string& path, bool followLinks,
                    IdentityMode mode = IdentityMode::kCtime);

// Looks at an open file. Throws FileFailure like the other one.
Identity IdentityOf(int descriptor, IdentityMode mode = IdentityMode::kCtime);

// The query about a file: every part the tool reports, with every field of the identity in the key,
// so that a changed file gets a new entry. What the engine has no field for is mixed into deviceID
// and fileID, according to the mode.
//
// A size or time of 0 means "not given" to the engine, which then never stores the part. Asking for
// it would make every hit partial, so it is left out. The record points into path, which must
// outlive it.
metadata_input_s QueryFor(const std::string& path, const Identity& identity);

}  // namespace orvexscan
