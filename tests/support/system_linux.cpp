#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/system.h"

namespace support {

std::uint32_t endedProcessId() {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  if (child < 0 || waitpid(child, nullptr, 0) != child) {
    throw std::runtime_error("no process could be started");
  }
  return static_cast<std::uint32_t>(child);
}

struct HeldFile::Handle {
  int descriptor;
};

HeldFile::HeldFile(const std::filesystem::path& path)
    : handle_(std::make_unique<Handle>(Handle{open(path.c_str(), O_RDWR | O_CLOEXEC)})) {
  if (handle_->descriptor < 0 || flock(handle_->descriptor, LOCK_EX | LOCK_NB) != 0) {
    throw std::runtime_error("cannot hold " + path.string());
  }
}

HeldFile::~HeldFile() { close(handle_->descriptor); }

bool isOpen(const std::filesystem::path& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code closedMeanwhile;
    if (std::filesystem::read_symlink(entry.path(), closedMeanwhile) == path) {
      return true;
    }
  }
  return false;
}

bool isMapped(const void* address) {
  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    std::istringstream range(line);
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    char dash = 0;
    range >> std::hex >> begin >> dash >> end;
    const auto searched = reinterpret_cast<std::uintptr_t>(address);
    if (begin <= searched && searched < end) {
      return true;
    }
  }
  return false;
}

void makeSparseFile(const std::filesystem::path& path, std::uint64_t bytes) {
  std::ofstream{path};
  std::filesystem::resize_file(path, bytes);
}

std::string asStoredText(const std::string& text) { return text; }

std::filesystem::path folderOnAnotherDisk() { return "/dev/shm"; }

}  // namespace support
