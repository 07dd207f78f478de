#include "platform/files.h"

#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <windows.h>

#include <cerrno>
#include <filesystem>

namespace platform {
namespace {

std::error_code lastError() { return {static_cast<int>(GetLastError()), std::system_category()}; }

// A program that the host starts must not get hold of the file: it would keep it locked when the host has ended.
Stream forThisProcess(std::FILE* opened) {
  Stream stream(opened);
  if (stream != nullptr) {
    SetHandleInformation(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(stream.get()))), HANDLE_FLAG_INHERIT, 0);
  }
  return stream;
}

Stream openForThisProcess(const std::wstring& path, const wchar_t* mode, int sharing) {
  return forThisProcess(_wfsopen(path.c_str(), mode, sharing));
}

// Closes a file's handle.
struct CloseFile {
  void operator()(void* handle) const noexcept { CloseHandle(handle); }
};

}  // namespace

// Who reads a file must keep nobody from removing it.
Stream openTextForReading(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return nullptr;
  }
  const int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_RDONLY | _O_TEXT);
  if (descriptor < 0) {
    CloseHandle(handle);
    return nullptr;
  }
  std::FILE* const stream = _fdopen(descriptor, "r");
  if (stream == nullptr) {
    _close(descriptor);
  }
  return Stream(stream);
}

// Readers are done in a moment; they, or one who removes the file, may have it open just now.
bool writeText(const std::wstring& path, std::string_view text) {
  constexpr int kAttempts = 100;
  constexpr DWORD kPauseMilliseconds = 5;
  Stream stream = openForThisProcess(path, L"w", _SH_DENYRD);
  for (int attempt = 1; stream == nullptr && errno == EACCES && attempt < kAttempts; ++attempt) {
    Sleep(kPauseMilliseconds);
    stream = openForThisProcess(path, L"w", _SH_DENYRD);
  }
  return stream != nullptr && std::fwrite(text.data(), 1, text.size(), stream.get()) == text.size();
}

// Texts are written in place here.
void removeUnfinishedTexts(const std::wstring&) {}

Stream openLockFile(const std::wstring& path) { return openForThisProcess(path, L"wb", _SH_DENYRW); }

// Others may read and write the file, but not remove it.
Stream openToKeep(const std::string& narrowPath) {
  return forThisProcess(_fsopen(narrowPath.c_str(), "wb", _SH_DENYNO));
}

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

// Only the attempt tells whether the file is in use.
bool removeUnlessInUse(const std::wstring& path, const std::function<void()>& removeCompanions) {
  if (DeleteFileW(path.c_str()) == 0) {
    return false;
  }
  removeCompanions();
  return true;
}

std::optional<std::uint64_t> fileBytes(const std::string& narrowPath) {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  constexpr DWORD kNoFile = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
  if (GetFileAttributesExA(narrowPath.c_str(), GetFileExInfoStandard, &data) == 0 ||
      (data.dwFileAttributes & kNoFile) != 0) {
    return std::nullopt;
  }
  return std::uint64_t{data.nFileSizeHigh} << 32 | data.nFileSizeLow;
}

std::wstring fileKey(const std::wstring& path) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const HANDLE handle = CreateFileW(path.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return path;
  }
  const std::unique_ptr<void, CloseFile> file(handle);
  BY_HANDLE_FILE_INFORMATION information{};
  if (GetFileInformationByHandle(handle, &information) == 0) {
    return path;
  }
  const std::uint64_t index = std::uint64_t{information.nFileIndexHigh} << 32 | information.nFileIndexLow;
  return std::to_wstring(information.dwVolumeSerialNumber) + L':' + std::to_wstring(index);
}

std::error_code createFolders(const std::wstring& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  return error;
}

}  // namespace platform
