// The messages of KvTileImage, taken over from EmberLogger.
#ifndef KVTILE_LIBRARY_MESSAGES_H
#define KVTILE_LIBRARY_MESSAGES_H

#include "console.h"

namespace kvtile {

// While it lives the library's messages go to the console as details, and nowhere else: its errors are
// told to the user in the program's own words. One at a time.
class LibraryMessages {
 public:
  explicit LibraryMessages(Console& console);
  ~LibraryMessages();
  LibraryMessages(const LibraryMessages&) = delete;
  LibraryMessages& operator=(const LibraryMessages&) = delete;

 private:
  static void receive(int severity, const char* tag, const char* message, void* user);

  Console& console_;
};

}  // namespace kvtile

#endif
