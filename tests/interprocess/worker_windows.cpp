#include <shlobj.h>
#include <windows.h>

#include <cstdlib>

#include "worker_system.h"

namespace interprocess {

const char* const kProgramExtension = ".exe";

std::filesystem::path testFolder() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path();
}

// The system tells every process of the user the same.
std::filesystem::path userDataFolder(const std::filesystem::path&) {
  wchar_t path[MAX_PATH];
  return SUCCEEDED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path)) ? path : L"";
}

// The library is beside the test program.
support::ChildProcess::Environment workerEnvironment(const std::filesystem::path&) {
  const char* const path = std::getenv("PATH");
  return {{"PATH", testFolder().string() + ';' + (path != nullptr ? path : "")}};
}

}  // namespace interprocess
