// Programs that share pictures, and what they leave on the disk.
#ifndef KVTILE_TESTS_SHARER_H
#define KVTILE_TESTS_SHARER_H

#include <string>
#include <vector>

#include "sandbox.h"

namespace support {

// `kvtile share` at work, its standard input a pipe of the test's.
class Sharer {
 public:
  // `arguments` of the command; waits until the picture is complete, or the program at its end.
  Sharer(const Sandbox& sandbox, std::vector<std::string> arguments);
  ~Sharer();
  Sharer(const Sharer&) = delete;
  Sharer& operator=(const Sharer&) = delete;

  // What it said on standard output.
  const std::string& line() const { return line_; }

  Process& process() { return process_; }

  void pressEnter() const;
  void closeInput();

  // Ends it by Enter.
  Result end();

 private:
  struct Pipe {
    int read = -1;
    int write = -1;
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
  };

  Pipe pipe_;
  Process process_;
  std::string line_;
};

// Descriptors, lock files of images, and backing files of all programs started in the sandbox, in alphabetical order.
std::vector<std::string> filesOfSharedImages(const Sandbox& sandbox);

// What there is in the data folder of the sandbox: names with size, time of the last change and access rights.
std::vector<std::string> dataFolderState(const Sandbox& sandbox);

}  // namespace support

#endif
