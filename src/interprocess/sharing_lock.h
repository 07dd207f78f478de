// One at a time of all the processes that make, find or let go of shared images.
#pragma once

#include <memory>

#include "platform/lock_files.h"

namespace interprocess {

// Held while a shared image is made, attached to, tried out or let go of. The steps of these follow each other in
// several files: two at once would leave files behind, or remove what the other one is about to use. Any number of
// threads and processes may ask for it; a thread that has it must not.
class SharingLock {
 public:
  // Waits for it, half a minute at most.
  SharingLock();
  ~SharingLock() = default;
  SharingLock(const SharingLock&) = delete;
  SharingLock& operator=(const SharingLock&) = delete;

  // Whether it is held; if not, the reason has been logged.
  bool held() const { return lock_ != nullptr; }

 private:
  void take();

  std::unique_ptr<platform::FileLock> lock_;
};

}  // namespace interprocess
