// The library's logger. Each format begins with "[%s] " and its first argument is the qualified name of the function
// that logs.
#pragma once

#include "ember_logger/ember_logger.h"

namespace base {

// What the formats' %llu takes; std::uint64_t is another type on some systems.
using ull = unsigned long long;

// Made when the library is loaded, destroyed when it is unloaded. Any thread may use it.
ember_logger::Logger& logger() noexcept;

// Logs an error whose format has no other argument than the function's name. Always false.
inline bool fail(const char* format, const char* function) {
  logger().log(ember_logger::error, format, function);
  return false;
}

}  // namespace base
