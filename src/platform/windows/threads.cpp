#include "platform/threads.h"

#include <windows.h>

#include <new>

namespace platform {
namespace {

void NTAPI destroyThreadObject(void* object) { delete static_cast<ThreadObject*>(object); }

// A slot of the system's. Thread-local C++ objects with destructors do not end well in a library that this compiler
// builds: they are destroyed after the runtime has given their memory back.
class Slot {
 public:
  Slot() noexcept : index_(FlsAlloc(&destroyThreadObject)) {}
  ~Slot() {
    if (index_ != FLS_OUT_OF_INDEXES) {
      FlsFree(index_);  // destroys the objects of all threads
      index_ = FLS_OUT_OF_INDEXES;
    }
  }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  ThreadObject* get() const noexcept {
    return index_ == FLS_OUT_OF_INDEXES ? nullptr : static_cast<ThreadObject*>(FlsGetValue(index_));
  }
  bool set(ThreadObject* object) const noexcept {
    return index_ != FLS_OUT_OF_INDEXES && FlsSetValue(index_, object) != 0;
  }

 private:
  DWORD index_;
};

Slot& slot() noexcept {
  static Slot theSlot;
  return theSlot;
}

}  // namespace

std::uint32_t currentThreadId() noexcept { return GetCurrentThreadId(); }

ThreadObject* threadObject() noexcept { return slot().get(); }

void setThreadObject(std::unique_ptr<ThreadObject> object) {
  const std::unique_ptr<ThreadObject> previous(slot().get());
  if (!slot().set(object.get())) {
    throw std::bad_alloc();
  }
  object.release();
}

}  // namespace platform
