// Programs that a test starts, talks to and ends.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace support {

// A running program with its stdin and stdout connected to the test; its stderr is the test's. It does not outlive the
// object, nor, on Linux, the thread that started it. Nothing waits for longer than kPatience: std::runtime_error tells
// what was waited for.
class ChildProcess {
 public:
  using Environment = std::map<std::string, std::string>;

  static constexpr std::chrono::seconds kPatience{60};

  // Starts `program`, a path, without a shell. `environment` is added to the test's own. Throws std::runtime_error if
  // it cannot be started; on Linux a file that is no program ends with 127 instead.
  explicit ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments = {},
                        const Environment& environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::uint32_t id() const;

  // The next line of its stdout without the line's end; nothing when there will be no more.
  std::optional<std::string> readLine();

  // Sends a line to its stdin. A child that has ended does not get it.
  void writeLine(const std::string& line);

  // It reads the end of its stdin from here on.
  void closeInput();

  // Ends it at once, whatever it is doing, and waits for that. Nothing happens if it has ended.
  void kill();

  // Waits until it ends: its exit code, negative if a signal, an exception or kill ended it. What it still says
  // meanwhile is kept for readLine.
  int wait();

 private:
  // What the operating system knows the child by; one implementation per system.
  class Handles;

  std::string program_;
  std::unique_ptr<Handles> handles_;
  std::string unread_;
};

}  // namespace support
