// The links to running programs in /proc.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// What /proc/ID/exe leads to, as the path that the program was started from: the system marks a program whose file was
// replaced or removed meanwhile, which a new version does.
inline std::string nameOfProgram(std::string target) {
  constexpr std::string_view kMark = " (deleted)";
  if (target.ends_with(kMark)) {
    target.resize(target.size() - kMark.size());
  }
  return target;
}

}  // namespace platform
