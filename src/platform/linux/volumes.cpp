#include "platform/volumes.h"

#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <filesystem>

#include "platform/paths.h"

namespace platform {
namespace {

// File systems that are served by another machine or by a program, or that are memory.
constexpr std::array<std::uint32_t, 18> kNotFixed{
    NFS_SUPER_MAGIC, SMB_SUPER_MAGIC,  SMB2_SUPER_MAGIC, CIFS_SUPER_MAGIC, FUSE_SUPER_MAGIC,
    V9FS_MAGIC,      CEPH_SUPER_MAGIC, AFS_SUPER_MAGIC,  CODA_SUPER_MAGIC, OCFS2_SUPER_MAGIC,
    0x01161970,  // GFS2; these have no name in the header
    0x0BD00BD0,  // Lustre
    0x47504653,  // GPFS
    0x19830326,  // BeeGFS
    0x6B414653,  // kAFS
    0x786F4256,  // folders that a virtual machine shares with its host
    TMPFS_MAGIC,     RAMFS_MAGIC,
};

std::filesystem::path nearestExisting(const std::wstring& folder) {
  std::filesystem::path path(narrowPath(folder));
  std::error_code ignored;
  while (!std::filesystem::exists(path, ignored) && path.has_relative_path()) {
    path = path.parent_path();
  }
  return path.empty() ? std::filesystem::path(".") : path;
}

}  // namespace

std::wstring driveKey(const std::wstring& folder) {
  struct stat status {};
  return stat(nearestExisting(folder).c_str(), &status) == 0 ? std::to_wstring(status.st_dev) : std::wstring();
}

std::uint64_t fixedDriveFreeBytes(const std::wstring& folder) {
  struct statfs status {};
  if (statfs(nearestExisting(folder).c_str(), &status) != 0) {
    return 0;
  }
  const auto type = static_cast<std::uint32_t>(status.f_type);
  const bool fixed = std::find(kNotFixed.begin(), kNotFixed.end(), type) == kNotFixed.end();
  return fixed ? freeBytes(folder).value_or(0) : 0;
}

std::optional<std::uint64_t> freeBytes(const std::wstring& folder) {
  struct statvfs status {};
  // Some file systems, of memory or of a program, have no size.
  if (statvfs(nearestExisting(folder).c_str(), &status) != 0 || status.f_blocks == 0) {
    return std::nullopt;
  }
  return std::uint64_t{status.f_bavail} * status.f_frsize;
}

}  // namespace platform
