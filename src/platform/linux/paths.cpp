#include "platform/paths.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "platform/linux/program_link.h"
#include "platform/utf8.h"

namespace platform {
namespace {

constexpr const char* kWithoutHome = "/var/tmp/";

std::string withSlash(const std::string& folder) { return folder.ends_with('/') ? folder : folder + '/'; }

// Absolute paths only: what is relative would mean another folder after each change of the working folder.
std::string absoluteFrom(const char* variable) {
  const char* const value = secure_getenv(variable);
  return value != nullptr && *value == '/' ? value : "";
}

std::string homeOfUser() {
  struct passwd entry {};
  struct passwd* found = nullptr;
  std::vector<char> texts(16384);
  if (getpwuid_r(getuid(), &entry, texts.data(), texts.size(), &found) != 0 || found == nullptr) {
    return "";
  }
  return found->pw_dir != nullptr && *found->pw_dir == '/' ? found->pw_dir : "";
}

std::string localDataFolderName() {
  if (const std::string data = absoluteFrom("XDG_DATA_HOME"); !data.empty()) {
    return withSlash(data);
  }
  std::string home = absoluteFrom("HOME");
  if (home.empty()) {
    home = homeOfUser();
  }
  return home.empty() ? kWithoutHome : withSlash(home) + ".local/share/";
}

}  // namespace

std::wstring executablePath() {
  std::error_code error;
  const std::filesystem::path path = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) {
    throw std::runtime_error("the path of the program cannot be read from /proc/self/exe: " + error.message());
  }
  return fromUtf8(nameOfProgram(path.native()));
}

std::wstring localDataFolder() { return fromUtf8(localDataFolderName()); }

bool mayHoldHostFiles(const std::wstring& folder) {
  // What is installed for everyone is no place for the files of one who runs it, whatever the rights allow.
  constexpr std::array<std::string_view, 5> kSystemFolders{"/usr/", "/bin/", "/sbin/", "/lib/", "/opt/"};
  const std::string name = narrowPath(folder);
  const bool ofSystem = std::any_of(kSystemFolders.begin(), kSystemFolders.end(),
                                    [&](std::string_view system) { return name.starts_with(system); });
  return !ofSystem && access(name.c_str(), W_OK | X_OK) == 0;
}

std::string narrowPath(const std::wstring& path) { return toUtf8(path); }

std::wstring fromNarrowPath(const std::string& narrowPath) { return fromUtf8(narrowPath); }

std::filesystem::path filesystemPath(const std::wstring& path) { return toUtf8(path); }

std::wstring widePath(const std::filesystem::path& path) { return fromUtf8(path.native()); }

}  // namespace platform
