// How running programs are told apart.
#pragma once

#include <algorithm>
#include <cwctype>
#include <string_view>

namespace platform {

// A program's file name without its extension.
inline std::wstring_view programStem(std::wstring_view executable) {
  return executable.substr(0, executable.rfind(L'.'));
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
