#include "platform/threads.h"

#include <pthread.h>
#include <unistd.h>

#include <new>
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

// A place for objects that come when those of the thread are gone already: a program may use images in the destructors
// of its own. What is put there goes after them.
class LatePlace {
 public:
  LatePlace() noexcept : made_(pthread_key_create(&key_, &destroy) == 0) {}

  bool set(ThreadObject* late) const noexcept { return made_ && pthread_setspecific(key_, late) == 0; }

 private:
  static void destroy(void* late) {
    object = nullptr;
    delete static_cast<ThreadObject*>(late);
  }

  pthread_key_t key_{};
  bool made_;
};

}  // namespace

std::uint32_t currentThreadId() noexcept {
  // Asked for once: it is compared at every access. The copy of a thread in a forked process counts as that thread.
  thread_local const auto id = static_cast<std::uint32_t>(gettid());
  return id;
}

ThreadObject* threadObject() noexcept { return object; }

void setThreadObject(std::unique_ptr<ThreadObject> newObject) {
  if (ended) {
    static const LatePlace place;
    if (!place.set(newObject.get())) {
      throw std::bad_alloc();
    }
    object = newObject.release();
    return;
  }
  owner.owned = std::move(newObject);
  object = owner.owned.get();
}

}  // namespace platform
