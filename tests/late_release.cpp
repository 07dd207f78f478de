// A program whose images in files are used and released as late as it gets: while a thread ends, and by static objects
// after main. It fails if the library has anything to complain about.
#ifdef _WIN32
#include <windows.h>
#else
#include <pthread.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include "support/image.h"
#include "support/log_capture.h"

namespace {

using support::Image;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "late_release: %s\n", what);
  std::_Exit(1);
}

void check(bool good, const char* what) {
  if (!good) {
    fail(what);
  }
}

void complain(int, const char*, const char* message, void*) { fail(message); }

// Uses its images once more before they go.
class Holder {
 public:
  ~Holder() {
    for (const Image& image : images_) {
      std::uint8_t pixel = 0;
      check(KvTileImage_GetPixelData(image.get(), 299, 4099, &pixel, 1) && pixel == 77, "a pixel is lost");
      pixel = 78;
      check(KvTileImage_SetPixelData(image.get(), 0, 0, &pixel, 1), "no pixel can be set");
      KvTileImage_EndCurrentThreadIO(image.get());
      check(KvTileImage_GetPixelData(image.get(), 0, 4097, &pixel, 1) && pixel == 0, "a pixel is there unasked");
    }
  }

  void add(Image image) {
    check(image != nullptr, "no image");
    const std::uint8_t pixel = 77;
    check(KvTileImage_SetPixelData(image.get(), 299, 4099, &pixel, 1), "no pixel can be set");
    images_.push_back(std::move(image));
  }

 private:
  std::vector<Image> images_;
};

void fill(Holder& holder) {
  holder.add(support::allocateInFiles(300, 4100, 1, 8, KVTI_SCANLINE_OPERATION_ROWCOL));
  holder.add(support::allocate(300, 4100, 1, 8));
}

// A place of the system's for a holder of each thread, which it destroys when the thread ends.
class HolderOfThread {
 public:
#ifdef _WIN32
  HolderOfThread() : index_(FlsAlloc(&destroy)) { check(index_ != FLS_OUT_OF_INDEXES, "no slot"); }
  void set(Holder* holder) const { check(FlsSetValue(index_, holder) != 0, "no value"); }
#else
  HolderOfThread() { check(pthread_key_create(&index_, &destroy) == 0, "no slot"); }
  void set(Holder* holder) const { check(pthread_setspecific(index_, holder) == 0, "no value"); }
#endif

 private:
#ifdef _WIN32
  static void NTAPI destroy(void* holder) { delete static_cast<Holder*>(holder); }
  DWORD index_;
#else
  static void destroy(void* holder) { delete static_cast<Holder*>(holder); }
  pthread_key_t index_{};
#endif
};

Holder first;  // older than anything that main does, so it goes last

}  // namespace

int main() {
  EmberLogger_SetLevel(ember_logger::debug);
  EmberLogger_SetSink(&complain, nullptr);
  const HolderOfThread older;  // than the library's own
  fill(first);
  static Holder last;
  fill(last);
  const HolderOfThread younger;
  for (const HolderOfThread* place : {&older, &younger}) {
    std::thread([place] {
      auto* const holder = new Holder;
      fill(*holder);
      place->set(holder);
    }).join();
  }
#ifndef _WIN32  // this compiler's Windows programs destroy such objects after they have given their memory back
  const auto useThreadLocal = [] {
    static thread_local Holder ofThread;
    fill(ofThread);
  };
  useThreadLocal();
  std::thread(useThreadLocal).join();
#endif
  std::thread([] { fill(first); }).join();
  EmberLogger_SetLevel(ember_logger::error);  // its release on another thread is worth a warning
  return 0;
}
