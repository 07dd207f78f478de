#include "platform/threads.h"

#include <unistd.h>

#include <utility>

namespace platform {
namespace {

// May be looked at while the thread's objects are being destroyed, and afterwards: it has no destructor itself.
thread_local ThreadObject* object = nullptr;
thread_local bool ended = false;

struct Owner {
  ~Owner() {
    object = nullptr;
    ended = true;
  }
  std::unique_ptr<ThreadObject> owned;
};

thread_local Owner owner;

}  // namespace

std::uint32_t currentThreadId() noexcept {
  // Asked for once: it is compared at every access. The copy of a thread in a forked process counts as that thread.
  thread_local const auto id = static_cast<std::uint32_t>(gettid());
  return id;
}

ThreadObject* threadObject() noexcept { return object; }

void setThreadObject(std::unique_ptr<ThreadObject> newObject) {
  if (ended) {
    // Nothing would destroy it any more. A program that uses images in the destructors of its own thread-local or
    // static objects comes here.
    object = newObject.release();
    return;
  }
  owner.owned = std::move(newObject);
  object = owner.owned.get();
}

}  // namespace platform
