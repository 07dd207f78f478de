#include "platform/mapped_files.h"

#include <windows.h>

#include <array>
#include <atomic>

namespace platform {
namespace {

using win_interprocess::HandleDeleter;
using win_interprocess::interprocess_exception;
using win_interprocess::shared_handle;

// What a mode asks of each call.
struct Access {
  DWORD file;
  DWORD protection;
  DWORD view;
};

constexpr std::array<Access, 3> kAccess{{
    {GENERIC_READ, PAGE_READONLY, FILE_MAP_READ},
    {GENERIC_READ | GENERIC_WRITE, PAGE_READWRITE, FILE_MAP_WRITE},
    {GENERIC_READ | GENERIC_WRITE, PAGE_WRITECOPY, FILE_MAP_COPY},
}};

// A value that is looked up once in a process, by whichever thread comes first; the others wait for it. Takes no lock
// of the runtime's, so that it may be used while a library is being loaded.
template <class Value>
class LookedUpOnce {
 public:
  template <class LookUp>
  Value get(LookUp lookUp) {
    std::uint32_t expected = kNotStarted;
    if (state_.compare_exchange_strong(expected, kInProgress)) {
      value_ = lookUp();
      ++state_;  // ready
    } else {
      waitUntilReady();
    }
    return value_;
  }

 private:
  static constexpr std::uint32_t kNotStarted = 0;
  static constexpr std::uint32_t kInProgress = 1;
  static constexpr std::uint32_t kReady = 2;

  void waitUntilReady() const {
    for (unsigned round = 0; state_ != kReady; ++round) {
      if (round % 2 == 0) {
        Sleep(1);
      } else if (SwitchToThread() == 0) {
        Sleep(0);
      }
    }
  }

  std::atomic<std::uint32_t> state_{kNotStarted};
  Value value_{};
};

// The record that NtQuerySection fills in for SectionBasicInformation.
struct SectionBasicInformation {
  void* baseAddress;
  ULONG attributes;
  LARGE_INTEGER maximumSize;
};
static_assert(sizeof(SectionBasicInformation) == 24);

constexpr int kSectionBasicInformation = 0;

using NtQuerySection = LONG(NTAPI*)(HANDLE section, int informationClass, void* information, SIZE_T informationBytes,
                                    SIZE_T* resultBytes);

NtQuerySection ntQuerySection() {
  static LookedUpOnce<HMODULE> module;
  static LookedUpOnce<NtQuerySection> function;
  return function.get([] {
    const HMODULE ntdll = module.get([] { return GetModuleHandleA("ntdll.dll"); });
    return ntdll == nullptr ? nullptr
                            : reinterpret_cast<NtQuerySection>(reinterpret_cast<void*>(
                                  GetProcAddress(ntdll, "NtQuerySection")));  // by way of void*: no warning
  });
}

std::int64_t sectionSize(HANDLE section) {
  const NtQuerySection query = ntQuerySection();
  SectionBasicInformation information{};
  if (query == nullptr || query(section, kSectionBasicInformation, &information, sizeof(information), nullptr) != 0) {
    throw interprocess_exception("get_file_mapping_size failed");
  }
  return information.maximumSize.QuadPart;
}

}  // namespace

OpenMapping openMapping(const std::string& fileName, std::uint32_t mode) {
  const Access& access = kAccess[mode];
  OpenMapping opened;
  // An invalid handle, of a file that is not there, is handed on: the mapping call is what fails.
  opened.file =
      shared_handle(CreateFileA(fileName.c_str(), access.file, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, 0, nullptr),
                    HandleDeleter());
  if (opened.file == nullptr) {
    throw interprocess_exception("fileHandle is invalid", GetLastError());
  }
  opened.mapping =
      shared_handle(CreateFileMappingA(opened.file.get(), nullptr, access.protection, 0, 0, nullptr), HandleDeleter());
  if (opened.mapping == nullptr) {
    throw interprocess_exception("fileMappingHandle is invalid", GetLastError());
  }
  opened.size = sectionSize(opened.mapping.get());
  return opened;
}

std::uint8_t* mapView(const shared_handle& mapping, std::uint32_t mode, std::uint64_t start, std::uint64_t length) {
  void* const view = MapViewOfFileEx(mapping.get(), kAccess[mode].view, static_cast<DWORD>(start >> 32),
                                     static_cast<DWORD>(start), length, nullptr);
  if (view == nullptr) {
    throw interprocess_exception("map_view_of_file_ex failed", GetLastError());
  }
  return static_cast<std::uint8_t*>(view);
}

void unmapView(std::uint8_t* view, std::uint64_t) noexcept { UnmapViewOfFile(view); }

void flushView(const shared_handle&, std::uint8_t* view, std::uint64_t, std::uint64_t length) noexcept {
  FlushViewOfFile(view, length);
}

}  // namespace platform

namespace win_interprocess {

void HandleDeleter::operator()(void* handle) const noexcept {
  if (handle != nullptr) {
    CloseHandle(handle);
  }
}

}  // namespace win_interprocess
