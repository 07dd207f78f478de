#include "small_disk_linux.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/child_process.h"

namespace interprocess {
namespace {

constexpr const char* kMakeExt4 = "/usr/sbin/mkfs.ext4";

std::string failure(const char* step) { return std::string(step) + ": " + std::strerror(errno); }

// Takes this process to a place where its mounts are its own. Empty if it is there.
std::string leaveSharedMounts() {
  static const std::string failed = [] {
    if (unshare(CLONE_NEWNS) != 0) {
      return failure("unshare");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 ? std::string() : failure("private mounts");
  }();
  return failed;
}

// A loop device of the system's that stands for the file until it is unmounted, open; -1 if there is none to be had.
int loopDeviceFor(const std::filesystem::path& file, std::string& name) {
  const int control = open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int backing = open(file.c_str(), O_RDWR | O_CLOEXEC);
  int device = -1;
  for (int attempt = 0; attempt < 20 && device < 0; ++attempt) {
    const int number = ioctl(control, LOOP_CTL_GET_FREE);
    if (number < 0) {
      break;
    }
    name = "/dev/loop" + std::to_string(number);
    device = open(name.c_str(), O_RDWR | O_CLOEXEC);
    loop_config config{};
    config.fd = static_cast<__u32>(backing);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (device >= 0 && ioctl(device, LOOP_CONFIGURE, &config) != 0) {  // another was faster
      close(device);
      device = -1;
    }
  }
  close(control);
  close(backing);
  return device;
}

}  // namespace

SmallDisk::SmallDisk(Kind kind, std::uint64_t bytes, unsigned files)
    : folder_(scratch_.path() / "disk"), missing_(leaveSharedMounts()) {
  std::filesystem::create_directory(folder_);
  if (missing_.empty()) {
    mountAs(kind, bytes, files);
  }
}

void SmallDisk::mountAs(Kind kind, std::uint64_t bytes, unsigned files) {
  switch (kind) {
    case Kind::Memory:
      return mountMemory("tmpfs", bytes, files);
    case Kind::NoSize:
      return mountMemory("ramfs", bytes, files);
    case Kind::Ext4:
      return mountExt4(bytes, files, true);
    case Kind::Ext4WithoutReservation:
      return mountExt4(bytes, files, false);
  }
}

SmallDisk::~SmallDisk() {
  if (missing_.empty()) {
    umount2(folder_.c_str(), MNT_DETACH);
  }
}

void SmallDisk::mountMemory(const char* type, std::uint64_t bytes, unsigned files) {
  std::string options = "size=" + std::to_string(bytes);
  if (files != 0) {
    options += ",nr_inodes=" + std::to_string(files);
  }
  if (mount("none", folder_.c_str(), type, 0, options.c_str()) != 0) {
    missing_ = failure(type);
  }
}

void SmallDisk::mountExt4(std::uint64_t bytes, unsigned files, bool reservation) {
  const std::filesystem::path file = scratch_.path() / "disk.ext4";
  const int created = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (created < 0 || ftruncate(created, static_cast<off_t>(bytes)) != 0) {
    missing_ = failure("file for ext4");
  }
  close(created);
  std::vector<std::string> arguments{"-q", "-F", "-m", "0"};
  if (files != 0) {
    arguments.insert(arguments.end(), {"-N", std::to_string(files)});
  }
  if (!reservation) {
    arguments.insert(arguments.end(), {"-O", "^extents,^64bit"});
  }
  arguments.push_back(file.string());
  if (missing_.empty() && support::ChildProcess(kMakeExt4, arguments).wait() != 0) {
    missing_ = std::string(kMakeExt4) + " failed";
  }
  std::string name;
  const int device = missing_.empty() ? loopDeviceFor(file, name) : -1;
  if (missing_.empty() && device < 0) {
    missing_ = failure("loop device");
  }
  if (missing_.empty() && mount(name.c_str(), folder_.c_str(), "ext4", 0, nullptr) != 0) {
    missing_ = failure("ext4");
  }
  close(device);
}

std::uint64_t SmallDisk::freeBytes() const {
  struct statvfs status {};
  return statvfs(folder_.c_str(), &status) == 0 ? std::uint64_t{status.f_bavail} * status.f_frsize : 0;
}

void SmallDisk::fill() const {
  const int file = open((folder_ / "filler").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  off_t end = 0;
  for (off_t piece = static_cast<off_t>(freeBytes()); piece >= 1024;) {
    if (fallocate(file, 0, end, piece) == 0) {
      end += piece;
    } else {
      piece /= 2;
    }
  }
  // Where room cannot be reserved it has to be written.
  const std::vector<char> bytes(65536, 'x');
  while (end == 0 && write(file, bytes.data(), bytes.size()) > 0) {
  }
  close(file);
}

void SmallDisk::freeRoom() const { std::filesystem::remove(folder_ / "filler"); }

bool SmallDisk::makeReadOnly() const {
  return mount("none", folder_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

}  // namespace interprocess
