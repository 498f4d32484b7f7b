#include "identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "file_failure.h"

namespace orvexscan {
namespace {

constexpr uint64_t kNsPerSecond = 1000000000;

Identity Look(int directory, const char* path, int flags) {
  struct statx status {};
  if (statx(directory, path, flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS, &status) != 0) {
    throw FileFailure::OfSystem(errno, "statx");
  }
  if (S_ISLNK(status.stx_mode)) {
    throw FileFailure(FailureReason::kNotRegular, "a symbolic link; --follow reads what it names");
  }
  if (!S_ISREG(status.stx_mode)) {
    throw FileFailure(FailureReason::kNotRegular, "not a regular file");
  }
  Identity identity;
  identity.size = status.stx_size;
  identity.mtimeNs =
      static_cast<uint64_t>(status.stx_mtime.tv_sec) * kNsPerSecond + status.stx_mtime.tv_nsec;
  identity.device = gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor);
  identity.inode = status.stx_ino;
  return identity;
}

}  // namespace

bool Identity::operator==(const Identity& other) const {
  return size == other.size && mtimeNs == other.mtimeNs && device == other.device &&
         inode == other.inode;
}

Identity IdentityOf(const std::string& path, bool followLinks) {
  return Look(AT_FDCWD, path.c_str(), followLinks ? 0 : AT_SYMLINK_NOFOLLOW);
}

Identity IdentityOf(int descriptor) { return Look(descriptor, "", AT_EMPTY_PATH); }

metadata_input_s QueryFor(const std::string& path, const Identity& identity) {
  metadata_input_s query{};
  query.path = path.c_str();
  query.size = identity.size;
  query.mtime = identity.mtimeNs;
  query.deviceID = identity.device;
  query.fileID = identity.inode;
  query.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;
  query.invOperation = INV_KEEP_IN_CACHE;
  query.queryFlags =
      QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_SIGNERS | QUERY_FILE_TYPE;
  if (identity.size != 0) query.queryFlags |= QUERY_SIZE;
  if (identity.mtimeNs != 0) query.queryFlags |= QUERY_MTIME;
  return query;
}

}  // namespace orvexscan
