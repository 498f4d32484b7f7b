#include "file/pseudo_file_system.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace orvexscan {
namespace {

constexpr uint32_t kConfigFs = 0x62656570;  // these have no name in the header
constexpr uint32_t kFuseControl = 0x65735543;
constexpr uint32_t kMessageQueue = 0x19800202;

constexpr uint32_t kPseudo[] = {
    PROC_SUPER_MAGIC,   SYSFS_MAGIC,         DEBUGFS_MAGIC,  TRACEFS_MAGIC,      SECURITYFS_MAGIC,
    CGROUP_SUPER_MAGIC, CGROUP2_SUPER_MAGIC, PSTOREFS_MAGIC, EFIVARFS_MAGIC,     BPF_FS_MAGIC,
    NSFS_MAGIC,         SELINUX_MAGIC,       BINFMTFS_MAGIC, DEVPTS_SUPER_MAGIC, kConfigFs,
    kFuseControl,       kMessageQueue};

bool IsPseudo(const struct statfs& status) {
  const auto type = static_cast<uint32_t>(status.f_type);
  return std::find(std::begin(kPseudo), std::end(kPseudo), type) != std::end(kPseudo);
}

}  // namespace

bool IsOnPseudoFileSystem(int descriptor) {
  struct statfs status {};
  return fstatfs(descriptor, &status) == 0 && IsPseudo(status);
}

bool IsOnPseudoFileSystem(const std::string& path) {
  struct statfs status {};
  return statfs(path.c_str(), &status) == 0 && IsPseudo(status);
}

}  // namespace orvexscan
