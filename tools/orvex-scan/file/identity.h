// Which file, in which state: what the engine's cache keys are made of.
#pragma once

#include <cstdint>
#include <string>

#include "orvexeng.h"

namespace orvexscan {

// How much of a file's state tells one answer's key from another's.
enum class IdentityMode {
  kMtime,  // device, inode, size and mtime, which whoever writes the file can set back
  kCtime,  // ctime as well, which nobody can set
  kStrict  // inode generation, birth time and mount as well, where the system has them
};

// The mode as the command line has it: "mtime", "ctime", "strict".
const char* NameOf(IdentityMode mode);

// All but the path. Two equal identities of one path mean the same content, as far
// as size and times can tell.
struct Identity {
  IdentityMode mode = IdentityMode::kCtime;
  uint64_t size = 0;
  uint64_t mtimeNs = 0;  // since 1970; modulo 2^64 for a file older than that
  uint64_t ctimeNs = 0;  // likewise; looked at in every mode
  uint64_t device = 0;
  uint64_t inode = 0;
  // Strict mode only, and 0 where the system does not tell.
  uint64_t generation = 0;
  uint64_t birthNs = 0;
  uint64_t mount = 0;

  // Told of the file, and no part of what tells it from others: whoever changes one of
  // them changes ctime too.
  uint64_t permissions = 0;
  uint64_t owner = 0;
  uint64_t group = 0;
  uint64_t links = 0;

  bool operator==(const Identity& other) const;
  bool operator!=(const Identity& other) const { return !(*this == other); }
};

// Looks at the file that path names. Strict mode opens it, as only an open file tells
// its generation; the others do not.
//
// Throws FileFailure when it cannot be looked at or is no regular file; a link is
// one only if followLinks is set.
Identity IdentityOf(const std::string& path, bool followLinks,
                    IdentityMode mode = IdentityMode::kCtime);

// Looks at an open file. Throws FileFailure like the other one.
Identity IdentityOf(int descriptor, IdentityMode mode = IdentityMode::kCtime);

// The question about a file: every part the tool reports, with every field of the
// identity in the key, so that a changed file is another entry. What the engine has no
// field for is mixed into deviceID and fileID, as the mode says.
//
// A size or time of 0 means "not given" to the engine, which then never stores the
// part. Asked for it would be answered in part for ever, so it is not asked for.
// The record points into path, which must outlive it.
metadata_input_s QueryFor(const std::string& path, const Identity& identity);

}  // namespace orvexscan
