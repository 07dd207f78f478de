// The library's logger. Each format begins with "[%s] " and its first argument is the qualified name of the function
// that logs.
#pragma once

#include "ember_logger/ember_logger.h"

namespace base {

// What the formats' %llu takes; std::uint64_t is another type on some systems.
using ull = unsigned long long;

// Made when the library is loaded, destroyed when it is unloaded. Any thread may use it.
ember_logger::Logger& logger() noexcept;

}  // namespace base
