// How running programs are told apart.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cwctype>
#include <string_view>

namespace platform {

// A program's file name without its extension. A dot at the beginning begins none.
inline std::wstring_view programStem(std::wstring_view executable) {
  const std::size_t dot = executable.rfind(L'.');
  return dot == 0 ? executable : executable.substr(0, dot);
}

inline bool sameIgnoringCase(std::wstring_view a, std::wstring_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](wchar_t left, wchar_t right) { return std::towlower(left) == std::towlower(right); });
}

// Whether `name` is the file name `executable`, with or without its extension.
inline bool namesProgram(std::wstring_view name, std::wstring_view executable) {
  return sameIgnoringCase(name, executable) || sameIgnoringCase(name, programStem(executable));
}

}  // namespace platform
