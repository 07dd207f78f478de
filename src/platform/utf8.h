// Text between the library's wide strings and UTF-8. A wide string is UTF-16 where wide characters have 16 bits, else
// it holds one character per code point.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Throw std::range_error, with the text as far as it can be shown, if the text is not well-formed.
std::string toUtf8(const std::wstring& text);
std::wstring fromUtf8(std::string_view text);

// For messages: what is not well-formed is left out.
std::string shownUtf8(const std::wstring& text);

}  // namespace platform
