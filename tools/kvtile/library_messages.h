// The messages of KvTileImage, taken over from EmberLogger.
#ifndef KVTILE_LIBRARY_MESSAGES_H
#define KVTILE_LIBRARY_MESSAGES_H

#include <mutex>
#include <string>
#include <vector>

#include "console.h"

namespace kvtile {

// While it lives the library's messages go to the console as details, and nowhere else: failures are told to the user
// in the program's own words, with the library's reason among them. One at a time.
class LibraryMessages {
 public:
  explicit LibraryMessages(Console& console);
  ~LibraryMessages();
  LibraryMessages(const LibraryMessages&) = delete;
  LibraryMessages& operator=(const LibraryMessages&) = delete;

  // Forgets the errors so far, expected ones too.
  void forget();

  // Takes the errors since the last forget() for expected: until the next one, they and others of their text are no
  // reason for anything.
  void expectThese();

  // The first error since the last forget() that is not expected, " (...)" to be appended to a sentence, or nothing.
  // The first one is the cause; those behind it tell which functions gave up over it.
  std::string reason() const;

 private:
  static void receive(int severity, const char* tag, const char* message, void* user);
  void keep(const char* message);

  Console& console_;
  mutable std::mutex mutex_;         // messages come on the threads that log
  std::vector<std::string> errors_;  // the first few
  std::vector<std::string> expected_;
};

}  // namespace kvtile

#endif
