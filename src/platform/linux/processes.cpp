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

#include "platform/linux/program_link.h"
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

// The file name of the program that the process runs, while it can be read; empty for one that runs none.
std::optional<std::wstring> programOf(std::int32_t id) {
  std::error_code error;
  const path target = std::filesystem::read_symlink(folderOf(id) / "exe", error);
  if (error) {
    // A thread of the kernel has no program. Nor has a process whose first thread has ended, but that has others.
    const bool kernel = error == std::errc::no_such_file_or_directory && statusOf(id, "Threads:") == "1";
    return kernel ? std::optional(std::wstring()) : std::nullopt;
  }
  try {
    return fromUtf8(path(nameOfProgram(target.native())).filename().native());
  } catch (const std::range_error&) {
    return L"";  // a name that is not UTF-8 is another program's
  }
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

// Ended, or never a process: the id of a thread.
bool gone(std::int32_t id) {
  if (id <= 0 || (kill(id, 0) != 0 && errno == ESRCH)) {
    return true;
  }
  const std::string state = statusOf(id, "State:");
  const std::string process = statusOf(id, "Tgid:");
  const std::string threads = statusOf(id, "Threads:");
  // What no one has waited for has ended, unless only its first thread has.
  const bool ended = (state == "Z" || state == "X") && (threads.empty() || threads == "0" || threads == "1");
  return ended || (!process.empty() && process != std::to_string(id));
}

// In doubt a process is taken for this program: its files stay, where else it would lose them.
bool running(std::int32_t id, const std::wstring& executable) {
  if (gone(id)) {
    return false;
  }
  const auto program = programOf(id);
  if (program && namesProgram(*program, executable)) {
    return true;
  }
  // The name that it was started by outlives a renamed file.
  const auto command = commandOf(id);
  if (!command || sameCommand(*command, executable) || sameCommand(*command, std::wstring(programStem(executable)))) {
    return true;
  }
  return !program && statusOf(id, "Uid:") == std::to_string(getuid());
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
