// Threads, and the one object that the library keeps for each.
#pragma once

#include <cstdint>
#include <memory>

namespace platform {

// Nonzero, and another one for each thread that runs at the same time.
std::uint32_t currentThreadId() noexcept;

class ThreadObject {
 public:
  ThreadObject() = default;
  ThreadObject(const ThreadObject&) = delete;
  ThreadObject& operator=(const ThreadObject&) = delete;
  virtual ~ThreadObject() = default;
};

// The calling thread's object; null if it has none (yet, or any more: the thread is ending).
ThreadObject* threadObject() noexcept;

// Hands the calling thread its object, which is destroyed on this thread when the thread ends. Throws std::bad_alloc
// if the system has no room for it.
void setThreadObject(std::unique_ptr<ThreadObject> object);

}  // namespace platform
