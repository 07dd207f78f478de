#include "platform/processes.h"

#include <signal.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "platform/program_name.h"
#include "platform/utf8.h"

namespace platform {
namespace {

using std::filesystem::path;

constexpr std::size_t kCommandNameLength = 15;  // bytes; longer names are cut

path folderOf(std::int32_t id) { return path("/proc") / std::to_string(id); }

// The value behind `key` in /proc/ID/status; empty if it cannot be read.
std::string statusOf(std::int32_t id, std::string_view key) {
  std::ifstream status(folderOf(id) / "status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(key)) {
      std::istringstream rest(line.substr(key.size()));
      std::string value;
      rest >> value;
      return value;
    }
  }
  return "";
}

// The file name of the program that the process runs, while it can be read.
std::optional<std::wstring> programOf(std::int32_t id) {
  constexpr std::string_view kDeleted = " (deleted)";
  std::error_code error;
  std::string target = std::filesystem::read_symlink(folderOf(id) / "exe", error).native();
  if (error) {
    return std::nullopt;
  }
  if (target.ends_with(kDeleted)) {
    target.resize(target.size() - kDeleted.size());
  }
  return fromUtf8(path(target).filename().native());
}

// What the process calls itself: the first 15 bytes of its program's file name unless it says otherwise.
std::optional<std::string> commandOf(std::int32_t id) {
  std::ifstream file(folderOf(id) / "comm");
  std::string name;
  return std::getline(file, name) ? std::optional(name) : std::nullopt;
}

bool sameCommand(const std::string& command, const std::wstring& program) {
  const std::string name = toUtf8(program).substr(0, kCommandNameLength);
  return strcasecmp(command.c_str(), name.c_str()) == 0;
}

bool gone(std::int32_t id) {
  if (id <= 0 || (kill(id, 0) != 0 && errno == ESRCH)) {
    return true;
  }
  // An ended process that no one has waited for, or a thread of another process.
  const std::string state = statusOf(id, "State:");
  const std::string process = statusOf(id, "Tgid:");
  return state == "Z" || state == "X" || (!process.empty() && process != std::to_string(id));
}

bool running(std::int32_t id, const std::wstring& executable) {
  if (gone(id)) {
    return false;
  }
  try {
    if (const auto program = programOf(id)) {
      return namesProgram(*program, executable);
    }
  } catch (const std::range_error&) {
    return false;  // a program whose name is not UTF-8 is another one
  }
  const auto command = commandOf(id);
  return !command || sameCommand(*command, executable) || sameCommand(*command, std::wstring(programStem(executable)));
}

}  // namespace

std::uint32_t currentProcessId() noexcept { return static_cast<std::uint32_t>(getpid()); }

std::set<std::int32_t> runningProcesses(const std::set<std::int32_t>& ids, const std::wstring& executable) {
  std::set<std::int32_t> result;
  std::copy_if(ids.begin(), ids.end(), std::inserter(result, result.end()),
               [&](std::int32_t id) { return running(id, executable); });
  return result;
}

}  // namespace platform
