#include "platform/processes.h"

#include <windows.h>
// Uses the types of the header above.
#include <tlhelp32.h>

#include <map>
#include <memory>
#include <optional>

#include "platform/program_name.h"

namespace platform {
namespace {

struct CloseSnapshot {
  void operator()(void* snapshot) const noexcept { CloseHandle(snapshot); }
};

// The program's file name by process id; nothing if the system gives no snapshot.
std::optional<std::map<std::int32_t, std::wstring>> runningPrograms() {
  const HANDLE handle = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  if (handle == INVALID_HANDLE_VALUE) {
    return std::nullopt;
  }
  const std::unique_ptr<void, CloseSnapshot> snapshot(handle);
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof(entry);
  if (Process32FirstW(handle, &entry) == 0) {
    return std::nullopt;
  }
  std::map<std::int32_t, std::wstring> programs;
  do {
    programs[static_cast<std::int32_t>(entry.th32ProcessID)] = entry.szExeFile;
  } while (Process32NextW(handle, &entry) != 0);
  if (GetLastError() != ERROR_NO_MORE_FILES) {
    return std::nullopt;  // a part of them would make the rest look dead
  }
  return programs;
}

}  // namespace

std::uint32_t currentProcessId() noexcept { return GetCurrentProcessId(); }

std::set<std::int32_t> runningProcesses(const std::set<std::int32_t>& ids, const std::wstring& executable) {
  const auto programs = runningPrograms();
  if (!programs) {
    return ids;
  }
  std::set<std::int32_t> result;
  for (const std::int32_t id : ids) {
    const auto found = programs->find(id);
    if (found != programs->end() && namesProgram(found->second, executable)) {
      result.insert(id);
    }
  }
  return result;
}

}  // namespace platform
