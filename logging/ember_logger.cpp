#include "ember_logger/ember_logger.h"

#include <spdlog/sinks/stdout_color_sinks.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace {

constexpr int kNoCommonLevel = -1;
constexpr int kOff = 5;

// The level that EmberLogger_SetLevel gave to all loggers, or kNoCommonLevel.
std::atomic<int> commonLevel{kNoCommonLevel};

spdlog::level::level_enum spdlogLevel(int severity) {
  switch (severity) {
    case ember_logger::trace:
      return spdlog::level::trace;
    case ember_logger::debug:
      return spdlog::level::debug;
    case ember_logger::info:
      return spdlog::level::info;
    case ember_logger::warning:
      return spdlog::level::warn;
    default:
      return spdlog::level::err;
  }
}

// The one place that all messages of the process pass: the host's sink, or stderr.
class Outlet {
 public:
  // Never destroyed, so that libraries may log while the process's static objects go.
  static Outlet& instance() {
    static Outlet* const outlet = new Outlet;
    return *outlet;
  }

  void setSink(EmberLogger_Sink sink, void* user) {
    if (calledFromSink()) {
      // This thread holds the mutex already, further down its stack.
      sink_ = sink;
      user_ = user;
      return;
    }
    const std::lock_guard lock(sinkMutex_);
    sink_ = sink;
    user_ = user;
  }

  void deliver(int severity, const char* tag, const char* message) {
    if (calledFromSink()) {
      writeToStderr(severity, tag, message);
      return;
    }
    const std::lock_guard lock(sinkMutex_);
    if (sink_ == nullptr) {
      writeToStderr(severity, tag, message);
      return;
    }
    threadInSink_ = std::this_thread::get_id();
    try {
      sink_(severity, tag, message, user_);
    } catch (...) {  // the message has been handed over; what the host makes of it is its own affair
    }
    threadInSink_ = std::thread::id();
  }

 private:
  Outlet() : stderrSink_(std::make_shared<spdlog::sinks::stderr_color_sink_mt>()) {
    stderrSink_->set_pattern("%^[%n] [%l]%$ %v");
  }

  bool calledFromSink() const { return threadInSink_ == std::this_thread::get_id(); }

  void writeToStderr(int severity, const char* tag, const char* message) {
    stderrSink_->log(spdlog::details::log_msg(tag, spdlogLevel(severity), message));
    stderrSink_->flush();
  }

  std::mutex sinkMutex_;  // guards sink_ and user_, and is held while the sink runs
  EmberLogger_Sink sink_ = nullptr;
  void* user_ = nullptr;
  std::atomic<std::thread::id> threadInSink_{};
  std::shared_ptr<spdlog::sinks::stderr_color_sink_mt> stderrSink_;
};

}  // namespace

void EmberLogger_SetSink(EmberLogger_Sink sink, void* user) {
  try {
    Outlet::instance().setSink(sink, user);
  } catch (const std::exception&) {  // no memory for the outlet itself: there is nothing to set yet
  }
}

void EmberLogger_SetLevel(int severity) { commonLevel = std::clamp<int>(severity, ember_logger::trace, kOff); }

namespace ember_logger {

Logger::Logger(const char* tag, const char*, int level, bool, bool, bool, bool, std::uint32_t, const char*, const char*,
               const char*)
    : tag_(tag == nullptr ? "" : tag), level_(level) {}

void Logger::log(severity_level severity, const char* format, ...) noexcept {
  const int common = commonLevel;
  if (severity < (common == kNoCommonLevel ? level_ : common)) {
    return;
  }
  std::array<char, 1024> shortText{};
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(shortText.data(), shortText.size(), format, arguments);
  va_end(arguments);
  const char* message = shortText.data();
  std::string longText;
  if (length >= static_cast<int>(shortText.size())) {
    try {
      longText.resize(static_cast<std::size_t>(length));
      va_start(arguments, format);
      std::vsnprintf(longText.data(), longText.size() + 1, format, arguments);
      va_end(arguments);
      message = longText.c_str();
    } catch (const std::exception&) {  // no memory: the beginning of the text is in shortText
    }
  }
  try {
    Outlet::instance().deliver(severity, tag_, message);
  } catch (const std::exception&) {  // stderr cannot be written, or no memory: there is no one left to tell
  }
}

}  // namespace ember_logger
