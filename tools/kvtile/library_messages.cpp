#include "library_messages.h"

#include <ember_logger/ember_logger.h>

#include <algorithm>
#include <array>

namespace kvtile {
namespace {

constexpr int kEverything = 0;
constexpr int kErrors = 4;
constexpr std::size_t kMostKept = 8;  // a loop of failures logs without end
constexpr std::array<const char*, 5> kSeverities = {"trace", "debug", "info", "warning", "error"};

// The text without the name of the function that it begins with: "[Name] text".
std::string withoutFunction(const std::string& message) {
  const std::size_t end = message.find("] ");
  return message.starts_with('[') && end != std::string::npos ? message.substr(end + 2) : message;
}

}  // namespace

LibraryMessages::LibraryMessages(Console& console) : console_(console) {
  EmberLogger_SetSink(&LibraryMessages::receive, this);
  EmberLogger_SetLevel(console.verbose() ? kEverything : kErrors);
}

LibraryMessages::~LibraryMessages() { EmberLogger_SetSink(nullptr, nullptr); }

void LibraryMessages::forget() {
  const std::lock_guard lock(mutex_);
  errors_.clear();
  expected_.clear();
}

void LibraryMessages::expectThese() {
  const std::lock_guard lock(mutex_);
  expected_.insert(expected_.end(), errors_.begin(), errors_.end());
  errors_.clear();
}

std::string LibraryMessages::reason() const {
  const std::lock_guard lock(mutex_);
  std::string text = errors_.empty() ? std::string() : withoutFunction(errors_.front());
  // The line has one semicolon, before the advice.
  std::replace(text.begin(), text.end(), ';', ',');
  while (!text.empty() && (text.back() == '.' || text.back() == '!' || text.back() == ' ')) {
    text.pop_back();
  }
  return text.empty() ? text : " (" + text + ")";
}

void LibraryMessages::keep(const char* message) {
  const std::lock_guard lock(mutex_);
  if (errors_.size() < kMostKept && std::find(expected_.begin(), expected_.end(), message) == expected_.end()) {
    errors_.emplace_back(message);
  }
}

void LibraryMessages::receive(int severity, const char* tag, const char* message, void* user) {
  const auto index = static_cast<std::size_t>(std::clamp(severity, 0, 4));
  auto& self = *static_cast<LibraryMessages*>(user);
  if (severity >= kErrors) {
    self.keep(message);
  }
  self.console_.detail(std::string(tag) + ": " + kSeverities[index] + ": " + message);
}

}  // namespace kvtile
