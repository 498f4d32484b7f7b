#include "file/identity.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <initializer_list>

#include "file/descriptor.h"
#include "file/file_failure.h"

namespace orvexscan {
namespace {

constexpr uint64_t kNsPerSecond = 1000000000;

uint64_t Nanoseconds(const statx_timestamp& time) {
  return static_cast<uint64_t>(time.tv_sec) * kNsPerSecond + time.tv_nsec;
}

Identity Look(int directory, const char* path, int flags, IdentityMode mode) {
  struct statx status {};
  if (statx(directory, path, flags | AT_STATX_SYNC_AS_STAT,
            STATX_BASIC_STATS | STATX_BTIME | STATX_MNT_ID, &status) != 0) {
    throw FileFailure::OfSystem(errno, "statx");
  }
  if (S_ISLNK(status.stx_mode)) {
    throw FileFailure(FailureReason::kNotRegular, "a symbolic link; --follow reads what it names");
  }
  if (!S_ISREG(status.stx_mode)) {
    throw FileFailure(FailureReason::kNotRegular, "not a regular file");
  }
  Identity identity;
  identity.mode = mode;
  identity.size = status.stx_size;
  identity.mtimeNs = Nanoseconds(status.stx_mtime);
  identity.ctimeNs = Nanoseconds(status.stx_ctime);
  identity.device = gnu_dev_makedev(status.stx_dev_major, status.stx_dev_minor);
  identity.inode = status.stx_ino;
  identity.permissions = status.stx_mode & 07777U;
  identity.owner = status.stx_uid;
  identity.group = status.stx_gid;
  identity.links = status.stx_nlink;
  if (mode == IdentityMode::kStrict) {
    if ((status.stx_mask & STATX_BTIME) != 0) identity.birthNs = Nanoseconds(status.stx_btime);
    if ((status.stx_mask & STATX_MNT_ID) != 0) identity.mount = status.stx_mnt_id;
  }
  return identity;
}

// Distinguishes an inode from an earlier one of the same number; 0 if there is none.
uint64_t GenerationOf(int descriptor) {
  // As wide as the request says, though most file systems fill in 32 bits.
  unsigned long generation = 0;
  return ioctl(descriptor, FS_IOC_GETVERSION, &generation) == 0 ? generation : 0;
}

// The output function of the SplitMix64 generator. It is a bijection: different numbers give
// different results.
uint64_t Scramble(uint64_t number) {
  number += 0x9e3779b97f4a7c15;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

// One after another, so that order matters and equal numbers do not cancel out. For one inode,
// different ctimes never give the same result.
uint64_t Mix(std::initializer_list<uint64_t> numbers) {
  uint64_t mixed = 0;
  for (const uint64_t number : numbers) mixed = Scramble(mixed ^ number);
  return mixed;
}

uint64_t DeviceIdFor(const Identity& identity) {
  if (identity.mode != IdentityMode::kStrict) return identity.device;
  return Mix({identity.device, identity.mount});
}

uint64_t FileIdFor(const Identity& identity) {
  switch (identity.mode) {
    case IdentityMode::kMtime:
      return identity.inode;
    case IdentityMode::kCtime:
      return Mix({identity.inode, identity.ctimeNs});
    case IdentityMode::kStrict:
      return Mix({identity.inode, identity.generation, identity.birthNs, identity.ctimeNs});
  }
  return 0;
}

}  // namespace

const char* NameOf(IdentityMode mode) {
  switch (mode) {
    case IdentityMode::kMtime:
      return "mtime";
    case IdentityMode::kCtime:
      return "ctime";
    case IdentityMode::kStrict:
      return "strict";
  }
  return "";
}

bool Identity::operator==(const Identity& other) const {
  return mode == other.mode && size == other.size && mtimeNs == other.mtimeNs &&
         ctimeNs == other.ctimeNs && device == other.device && inode == other.inode &&
         generation == other.generation && birthNs == other.birthNs && mount == other.mount;
}

Identity IdentityOf(const std::string& path, bool followLinks, IdentityMode mode) {
  // First without opening: opening a device can have side effects.
  const Identity seen = Look(AT_FDCWD, path.c_str(), followLinks ? 0 : AT_SYMLINK_NOFOLLOW, mode);
  if (mode != IdentityMode::kStrict) return seen;
  return IdentityOf(OpenToRead(path, followLinks).get(), mode);
}

Identity IdentityOf(int descriptor, IdentityMode mode) {
  Identity identity = Look(descriptor, "", AT_EMPTY_PATH, mode);
  if (mode == IdentityMode::kStrict) identity.generation = GenerationOf(descriptor);
  return identity;
}

metadata_input_s QueryFor(const std::string& path, const Identity& identity) {
  metadata_input_s query{};
  query.path = path.c_str();
  query.size = identity.size;
  query.mtime = identity.mtimeNs;
  query.deviceID = DeviceIdFor(identity);
  query.fileID = FileIdFor(identity);
  query.fileOperation = KEY_PATH | KEY_SIZE | KEY_MTIME | KEY_DEVICE_ID | KEY_FILE_ID;
  query.invOperation = INV_KEEP_IN_CACHE;
  query.queryFlags =
      QUERY_DIGEST16 | QUERY_DIGEST20 | QUERY_DIGEST32 | QUERY_SIGNERS | QUERY_FILE_TYPE;
  if (identity.size != 0) query.queryFlags |= QUERY_SIZE;
  if (identity.mtimeNs != 0) query.queryFlags |= QUERY_MTIME;
  return query;
}

}  // namespace orvexscan
