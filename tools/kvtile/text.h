// Text of unknown origin: names of files and what they contain.
#ifndef KVTILE_TEXT_H
#define KVTILE_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

namespace kvtile {

// The bytes of the UTF-8 character that `text` begins with; 0 where it begins with none.
std::size_t characterBytes(std::string_view text);

// True for UTF-8 without control characters besides line ends and tabs.
bool isText(std::string_view bytes);

// The text as UTF-8: with a '?' in the place of each control character and of each byte that is part of no character.
std::string asUtf8(std::string_view text);

// The characters of UTF-8 text.
std::size_t characters(std::string_view text);

// The text as a word of a shell's command line, in quotes if it needs them.
std::string shellWord(const std::string& text);

}  // namespace kvtile

#endif
