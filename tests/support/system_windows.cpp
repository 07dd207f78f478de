#include <windows.h>

#include <stdexcept>
#include <string>

#include "support/system.h"

namespace support {
namespace {

std::wstring commandInterpreter() {
  wchar_t folder[MAX_PATH];
  const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
  return std::wstring(folder, length) + L"\\cmd.exe";
}

}  // namespace

std::uint32_t endedProcessId() {
  STARTUPINFOW start{};
  start.cb = sizeof(start);
  PROCESS_INFORMATION process{};
  std::wstring command = L"cmd.exe /c exit";
  if (CreateProcessW(commandInterpreter().c_str(), command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                     nullptr, &start, &process) == 0) {
    throw std::runtime_error("no process could be started");
  }
  WaitForSingleObject(process.hProcess, INFINITE);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return process.dwProcessId;
}

struct HeldFile::Handle {
  HANDLE file;
};

HeldFile::HeldFile(const std::filesystem::path& path)
    : handle_(std::make_unique<Handle>(
          Handle{CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr)})) {
  if (handle_->file == INVALID_HANDLE_VALUE) {
    throw std::runtime_error("cannot hold " + path.string());
  }
}

HeldFile::~HeldFile() { CloseHandle(handle_->file); }

bool isOpen(const std::filesystem::path& path) {
  const HANDLE alone = CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (alone == INVALID_HANDLE_VALUE) {
    return GetLastError() == ERROR_SHARING_VIOLATION;
  }
  CloseHandle(alone);
  return false;
}

bool isMapped(const void* address) {
  MEMORY_BASIC_INFORMATION information{};
  return VirtualQuery(address, &information, sizeof(information)) != 0 && information.State != MEM_FREE;
}

void makeSparseFile(const std::filesystem::path& path, std::uint64_t bytes) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  LARGE_INTEGER end;
  end.QuadPart = static_cast<LONGLONG>(bytes);
  const bool made =
      file != INVALID_HANDLE_VALUE && SetFilePointerEx(file, end, nullptr, FILE_BEGIN) != 0 && SetEndOfFile(file) != 0;
  CloseHandle(file);
  if (!made) {
    throw std::runtime_error("cannot make " + path.string());
  }
}

std::string asStoredText(const std::string& text) {
  std::string stored;
  for (const char character : text) {
    stored += character == '\n' ? "\r\n" : std::string(1, character);
  }
  return stored;
}

// Wine shows the whole of the system it runs on there.
std::filesystem::path folderOnAnotherDisk() { return "Z:/tmp"; }

}  // namespace support
