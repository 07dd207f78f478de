// What ChildProcess asks of the operating system.
#pragma once

#include <optional>

#include "support/child_process.h"

namespace support {

class ChildProcess::Handles {
 public:
  // Starts the program. Throws std::runtime_error.
  Handles(const std::filesystem::path& program, const std::vector<std::string>& arguments,
          const Environment& environment);

  // Of a child that has ended.
  ~Handles();
  Handles(const Handles&) = delete;
  Handles& operator=(const Handles&) = delete;

  std::uint32_t id() const;

  // Appends what the child has written to stdout, waiting for at most `patience`. False if there will be no more.
  bool read(std::string& text, std::chrono::milliseconds patience);

  void write(const std::string& text);
  void closeInput();

  void kill();

  // The exit code of a child that has ended.
  std::optional<int> exitCode();

 private:
  struct Members;
  std::unique_ptr<Members> members_;
};

}  // namespace support
