#include "platform/lock_files.h"

#include <thread>

namespace platform {
namespace {

// The systems' own waits have no end.
constexpr std::chrono::milliseconds kPause{2};

template <class Try>
bool waitFor(std::chrono::milliseconds most, Try attempt) {
  const auto end = std::chrono::steady_clock::now() + most;
  while (!attempt()) {
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace

bool FileLock::waitShared(std::chrono::milliseconds most) {
  return waitFor(most, [this] { return tryShared(); });
}

bool FileLock::waitExclusive(std::chrono::milliseconds most) {
  return waitFor(most, [this] { return tryExclusive(); });
}

}  // namespace platform
