#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "worker_system.h"

namespace interprocess {

const char* const kProgramExtension = "";

std::filesystem::path testFolder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

std::filesystem::path userDataFolder(const std::filesystem::path& scratch) { return scratch / "data"; }

support::ChildProcess::Environment workerEnvironment(const std::filesystem::path& userData) {
  return {{"XDG_DATA_HOME", userData.string()}};
}

HeldFile::HeldFile(const std::filesystem::path& path) : handle_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (handle_ >= 0 && flock(static_cast<int>(handle_), LOCK_EX | LOCK_NB) != 0) {
    close(static_cast<int>(handle_));
    handle_ = -1;
  }
}

HeldFile::~HeldFile() {
  if (held()) {
    close(static_cast<int>(handle_));
  }
}

bool HeldFile::held() const { return handle_ >= 0; }

}  // namespace interprocess
