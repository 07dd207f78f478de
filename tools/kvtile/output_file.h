// The file a command makes: under a temporary name until it is complete.
#ifndef KVTILE_OUTPUT_FILE_H
#define KVTILE_OUTPUT_FILE_H

#include <string>

#include "file.h"

namespace kvtile {

class OutputFile {
 public:
  // Throws a Failure if `path` cannot become an output: its folder is missing or closed to us, or there is something
  // that may not be replaced. `replace` allows an ordinary file to be replaced. Nothing is created.
  static void check(const std::string& path, const std::string& input, bool replace);

  // Creates the temporary file beside `path`.
  OutputFile(const std::string& path, bool replace);

  // Removes the temporary file unless it was committed.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  File& file() { return file_; }

  // Gives the complete file its name. Throws a Failure if the data cannot be stored, or if the name was taken in the
  // meantime and may not be replaced.
  void commit();

 private:
  std::string path_;
  bool replace_;
  std::string temporaryPath_;
  File file_;
  bool committed_ = false;
};

// The Failure of a file that could not be written for `error`, an errno value.
[[noreturn]] void failToWrite(const std::string& path, int error);

}  // namespace kvtile

#endif
