// What the library asks the system about mapped files. The test program that links this puts itself between the two.
#pragma once

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace support {

// One request to write a view's changed bytes to its file.
struct FlushCall {
  std::string fileName;  // without its folder
  std::uint64_t bytes = 0;

  friend bool operator==(const FlushCall&, const FlushCall&) = default;
  friend std::ostream& operator<<(std::ostream& out, const FlushCall& call) {
    return out << call.fileName << ": " << call.bytes << " bytes";
  }
};

// The requests since the last call, of all threads.
std::vector<FlushCall> takeFlushCalls();

// No view of the file at `path` can be made while this lives. Views that are there stay. One at a time.
class Unmappable {
 public:
  explicit Unmappable(std::filesystem::path path);
  ~Unmappable();
  Unmappable(const Unmappable&) = delete;
  Unmappable& operator=(const Unmappable&) = delete;

 private:
  std::filesystem::path path_;
};

}  // namespace support
