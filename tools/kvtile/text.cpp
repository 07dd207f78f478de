#include "text.h"

#include <algorithm>

namespace kvtile {
namespace {

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U; }

// By the first byte, 0 for bytes that begin no character.
std::size_t announcedBytes(char first) {
  const auto byte = static_cast<unsigned char>(first);
  if (byte < 0x80) {
    return 1;
  }
  if (byte < 0xc2 || byte > 0xf4) {
    return 0;
  }
  return byte < 0xe0 ? 2 : byte < 0xf0 ? 3 : 4;
}

// Longer spellings of other characters, halves of pairs and numbers beyond the last character.
bool isForbiddenStart(unsigned char first, unsigned char second) {
  return (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
         (first == 0xf4 && second > 0x8f);
}

}  // namespace

std::size_t characterBytes(std::string_view text) {
  const std::size_t bytes = text.empty() ? 0 : announcedBytes(text[0]);
  if (bytes == 0 || bytes > text.size() || !std::all_of(text.begin() + 1, text.begin() + bytes, isContinuation)) {
    return 0;
  }
  const bool forbidden =
      bytes > 2 && isForbiddenStart(static_cast<unsigned char>(text[0]), static_cast<unsigned char>(text[1]));
  return forbidden ? 0 : bytes;
}

bool isText(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = characterBytes(bytes);
    const bool layout = bytes[0] == '\n' || bytes[0] == '\r' || bytes[0] == '\t';
    if (length == 0 || (isControl(bytes[0]) && !layout)) {
      return false;
    }
    bytes.remove_prefix(length);
  }
  return true;
}

std::string asUtf8(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t length = characterBytes(text);
    if (length == 0 || isControl(text[0])) {
      result += '?';
      text.remove_prefix(1);
    } else {
      result += text.substr(0, length);
      text.remove_prefix(length);
    }
  }
  return result;
}

std::size_t characters(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isContinuation));
}

std::string shellWord(const std::string& text) {
  constexpr const char* kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,+@%=";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) {
    return text;
  }
  std::string word = "'";
  for (const char c : text) {
    word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return word + "'";
}

}  // namespace kvtile
