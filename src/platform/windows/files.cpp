#include "platform/files.h"

#include <share.h>
#include <windows.h>

#include <filesystem>

namespace platform {
namespace {

std::error_code lastError() { return {static_cast<int>(GetLastError()), std::system_category()}; }

// Closes a file's handle.
struct CloseFile {
  void operator()(void* handle) const noexcept { CloseHandle(handle); }
};

}  // namespace

// N: child processes do not inherit the stream, which would keep others out for as long as they run.
Stream openTextForReading(const std::wstring& path) { return Stream(_wfsopen(path.c_str(), L"rN", _SH_DENYNO)); }

bool writeText(const std::wstring& path, std::string_view text) {
  const Stream stream(_wfsopen(path.c_str(), L"wN", _SH_DENYRD));
  return stream != nullptr && std::fwrite(text.data(), 1, text.size(), stream.get()) == text.size();
}

Stream openLockFile(const std::wstring& path) { return Stream(_wfsopen(path.c_str(), L"wbN", _SH_DENYRW)); }

std::error_code createZeroFile(const std::string& narrowPath, std::uint64_t bytes) {
  const HANDLE handle = CreateFileA(narrowPath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    const std::error_code error = lastError();
    const bool taken = error.value() == ERROR_FILE_EXISTS || error.value() == ERROR_ALREADY_EXISTS;
    return taken ? std::make_error_code(std::errc::file_exists) : error;
  }
  std::unique_ptr<void, CloseFile> file(handle);
  LARGE_INTEGER lastByte;
  lastByte.QuadPart = static_cast<LONGLONG>(bytes - 1);
  const char zero = 0;
  DWORD written = 0;
  if (SetFilePointerEx(handle, lastByte, nullptr, FILE_BEGIN) == 0 ||
      WriteFile(handle, &zero, 1, &written, nullptr) == 0) {
    const std::error_code error = lastError();
    file.reset();
    DeleteFileA(narrowPath.c_str());
    return error;
  }
  return {};
}

bool removeFile(const std::string& narrowPath) { return DeleteFileA(narrowPath.c_str()) != 0; }

bool removeUnlessInUse(const std::wstring& path) { return DeleteFileW(path.c_str()) != 0; }

std::error_code createFolders(const std::wstring& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  return error;
}

}  // namespace platform
