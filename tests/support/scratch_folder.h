// A folder of a test's own.
#pragma once

#ifndef _WIN32
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>

namespace support {

// New and empty; removed with all that is in it, but not by a forked process that ends.
class ScratchFolder {
 public:
  explicit ScratchFolder(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    static std::atomic<unsigned> made{0};
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    do {
      path_ = parent / ("kvtile-test-" + std::to_string(now) + "-" + std::to_string(made++));
    } while (!std::filesystem::create_directory(path_));
  }
  ~ScratchFolder() {
    if (processId() == maker_) {
      std::error_code ignored;
      std::filesystem::remove_all(path_, ignored);
    }
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::filesystem::path& path() const { return path_; }

  // As the library writes folders: wide, with "/" between the components and at the end.
  std::wstring wide() const { return path_.generic_wstring() + L"/"; }

 private:
  static long processId() {
#ifdef _WIN32
    return 0;  // no process is a copy of another there
#else
    return getpid();
#endif
  }

  std::filesystem::path path_;
  long maker_ = processId();
};

}  // namespace support
