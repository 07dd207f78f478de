// The command
//   start PROGRAM   started, or failed: a program that inherits this one's handles, its stdin and stdout among them
#include <windows.h>

#include <filesystem>
#include <sstream>

#include "tile_worker.h"

namespace tile_worker {
namespace {

std::string start(std::istream& words) {
  std::string program;
  std::getline(words >> std::ws, program);
  std::wstring line = L'"' + std::filesystem::path(program).wstring() + L'"';
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started) == 0) {
    return "failed";
  }
  CloseHandle(started.hThread);
  CloseHandle(started.hProcess);
  return "started";
}

}  // namespace

std::string systemAnswerTo(const std::string& name, std::istream& words) {
  return name == "start" ? start(words) : "unknown";
}

}  // namespace tile_worker
