#include "platform/paths.h"

#include <shlobj.h>
#include <windows.h>

#include <algorithm>
#include <stdexcept>

#include "platform/utf8.h"

namespace platform {
namespace {

constexpr const wchar_t* kWithoutDataFolder = L"d:/";

std::wstring withSlashes(std::wstring path) {
  std::replace(path.begin(), path.end(), L'\\', L'/');
  return path;
}

}  // namespace

std::wstring executablePath() {
  wchar_t path[1024];
  const DWORD length = GetModuleFileNameW(nullptr, path, 1024);
  if (length == 0 || length == 1024) {
    throw std::runtime_error("the path of the program cannot be had, or is longer than 1023 characters");
  }
  return withSlashes(path);
}

std::wstring localDataFolder() {
  wchar_t path[MAX_PATH];
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path))) {
    return kWithoutDataFolder;
  }
  const std::wstring folder = withSlashes(path);
  return folder.ends_with(L'/') ? folder : folder + L'/';
}

bool mayHoldHostFiles(const std::wstring&) { return true; }

std::string narrowPath(const std::wstring& path) {
  // Without best fits: a similar letter would name another folder.
  const bool utf8 = GetACP() == CP_UTF8;
  const DWORD flags = utf8 ? 0 : WC_NO_BEST_FIT_CHARS;
  BOOL replaced = FALSE;
  BOOL* const tellReplaced = utf8 ? nullptr : &replaced;
  const int bytes = WideCharToMultiByte(CP_ACP, flags, path.c_str(), -1, nullptr, 0, nullptr, tellReplaced);
  if (bytes <= 0 || replaced != FALSE) {
    throw std::range_error(shownUtf8(path) + " has characters that this system's code page lacks: use another folder");
  }
  std::string narrow(static_cast<std::size_t>(bytes), '\0');
  WideCharToMultiByte(CP_ACP, flags, path.c_str(), -1, narrow.data(), bytes, nullptr, nullptr);
  narrow.pop_back();  // the terminating zero, which was counted
  return narrow;
}

std::wstring fromNarrowPath(const std::string& narrowPath) {
  const int characters = MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, narrowPath.c_str(), -1, nullptr, 0);
  if (characters == 0) {
    throw std::range_error("a path is not in the ANSI code page");
  }
  std::wstring path(static_cast<std::size_t>(characters), L'\0');
  MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, narrowPath.c_str(), -1, path.data(), characters);
  path.pop_back();  // the terminating zero, which was counted
  return path;
}

std::filesystem::path filesystemPath(const std::wstring& path) { return path; }

std::wstring widePath(const std::filesystem::path& path) { return path.generic_wstring(); }

}  // namespace platform
