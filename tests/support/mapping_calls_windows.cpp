#include <windows.h>
// Needs windows.h before it.
#include <psapi.h>

#include <array>
#include <mutex>
#include <utility>

#include "support/mapping_calls.h"

namespace {

std::mutex mutex;
std::vector<support::FlushCall> calls;
std::string refusedFileName;

template <class Function>
Function* systemFunction(const char* name) {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), name)));  // by way of void*: no warning
}

// The name of the file that the view at `address` is of, without its folder.
std::string mappedFileName(const void* address) {
  std::array<wchar_t, 1024> path{};
  const DWORD length =
      GetMappedFileNameW(GetCurrentProcess(), const_cast<void*>(address), path.data(), static_cast<DWORD>(path.size()));
  return std::filesystem::path(std::wstring(path.data(), length)).filename().string();
}

BOOL WINAPI recordingFlush(LPCVOID address, SIZE_T bytes) {
  static auto* const original = systemFunction<decltype(FlushViewOfFile)>("FlushViewOfFile");
  {
    const std::lock_guard lock(mutex);
    calls.push_back({mappedFileName(address), bytes});
  }
  return original(address, bytes);
}

LPVOID WINAPI refusingMap(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes, LPVOID place) {
  static auto* const original = systemFunction<decltype(MapViewOfFileEx)>("MapViewOfFileEx");
  void* const view = original(mapping, access, offsetHigh, offsetLow, bytes, place);
  const std::lock_guard lock(mutex);
  if (view == nullptr || refusedFileName.empty() || mappedFileName(view) != refusedFileName) {
    return view;
  }
  UnmapViewOfFile(view);
  SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return nullptr;
}

}  // namespace

// Where calls of the two functions go; stand in for the import library's. That has a function and a pointer to it for
// each in one piece, and a reference to either that is not met here would bring both.
extern "C" {
decltype(&FlushViewOfFile) __imp_FlushViewOfFile = &recordingFlush;
decltype(&MapViewOfFileEx) __imp_MapViewOfFileEx = &refusingMap;

BOOL WINAPI flushFunction(LPCVOID address, SIZE_T bytes) __asm__("FlushViewOfFile");
BOOL WINAPI flushFunction(LPCVOID address, SIZE_T bytes) { return recordingFlush(address, bytes); }

LPVOID WINAPI mapFunction(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes,
                          LPVOID place) __asm__("MapViewOfFileEx");
LPVOID WINAPI mapFunction(HANDLE mapping, DWORD access, DWORD offsetHigh, DWORD offsetLow, SIZE_T bytes, LPVOID place) {
  return refusingMap(mapping, access, offsetHigh, offsetLow, bytes, place);
}
}

namespace support {

std::vector<FlushCall> takeFlushCalls() {
  const std::lock_guard lock(mutex);
  return std::exchange(calls, {});
}

Unmappable::Unmappable(std::filesystem::path path) : path_(std::move(path)) {
  const std::lock_guard lock(mutex);
  refusedFileName = path_.filename().string();
}

Unmappable::~Unmappable() {
  const std::lock_guard lock(mutex);
  refusedFileName.clear();
}

}  // namespace support
