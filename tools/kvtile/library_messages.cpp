#include "library_messages.h"

#include <ember_logger/ember_logger.h>

#include <algorithm>
#include <array>

namespace kvtile {
namespace {

constexpr int kEverything = 0;
constexpr int kErrors = 4;
constexpr std::array<const char*, 5> kSeverities = {"trace", "debug", "info", "warning", "error"};

}  // namespace

LibraryMessages::LibraryMessages(Console& console) : console_(console) {
  EmberLogger_SetSink(&LibraryMessages::receive, this);
  EmberLogger_SetLevel(console.verbose() ? kEverything : kErrors);
}

LibraryMessages::~LibraryMessages() { EmberLogger_SetSink(nullptr, nullptr); }

void LibraryMessages::receive(int severity, const char* tag, const char* message, void* user) {
  const auto index = static_cast<std::size_t>(std::clamp(severity, 0, 4));
  auto& self = *static_cast<LibraryMessages*>(user);
  self.console_.detail(std::string(tag) + ": " + kSeverities[index] + ": " + message);
}

}  // namespace kvtile
