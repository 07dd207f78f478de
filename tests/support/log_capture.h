// Takes the library's messages over while it lives.
#pragma once

#include <initializer_list>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "ember_logger/ember_logger.h"

namespace support {

struct LogLine {
  int severity = 0;
  std::string text;

  friend bool operator==(const LogLine&, const LogLine&) = default;
  friend std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << line.severity << " \"" << line.text << '"';
  }
};

using LogLines = std::vector<LogLine>;

// Collects messages of `level` and above; one at a time in a process.
class LogCapture {
 public:
  explicit LogCapture(int level = ember_logger::error) {
    EmberLogger_SetLevel(level);
    EmberLogger_SetSink(&LogCapture::receive, this);
  }
  ~LogCapture() {
    EmberLogger_SetSink(nullptr, nullptr);
    EmberLogger_SetLevel(ember_logger::error);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // What has come since the last call.
  LogLines take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  static void receive(int severity, const char*, const char* message, void* user) {
    auto& self = *static_cast<LogCapture*>(user);
    const std::lock_guard lock(self.mutex_);
    self.lines_.push_back({severity, message});
  }

  std::mutex mutex_;
  LogLines lines_;
};

// Error lines with the given texts.
inline LogLines errors(std::initializer_list<const char*> texts) {
  LogLines lines;
  for (const char* text : texts) {
    lines.push_back({ember_logger::error, text});
  }
  return lines;
}

}  // namespace support
