// An open file of the operating system.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <utility>

namespace platform {

// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int descriptor = -1) : descriptor_(descriptor) {}
  ~Descriptor() {
    if (valid()) {
      close(descriptor_);
    }
  }
  Descriptor(Descriptor&& other) noexcept : descriptor_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }

  bool valid() const { return descriptor_ >= 0; }
  int get() const { return descriptor_; }

  // The caller closes it from here on.
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

// Tells a file from any other that has its name later.
struct FileIdentity {
  FileIdentity() = default;
  explicit FileIdentity(const struct stat& status) : device(status.st_dev), inode(status.st_ino) {}

  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;

  dev_t device = 0;
  ino_t inode = 0;
};

}  // namespace platform
