#include "worker_system.h"

namespace interprocess {

const char* const kProgramExtension = "";

std::filesystem::path testFolder() { return std::filesystem::read_symlink("/proc/self/exe").parent_path(); }

std::filesystem::path userDataFolder(const std::filesystem::path& scratch) { return scratch / "data"; }

support::ChildProcess::Environment workerEnvironment(const std::filesystem::path& userData) {
  return {{"XDG_DATA_HOME", userData.string()}};
}

}  // namespace interprocess
