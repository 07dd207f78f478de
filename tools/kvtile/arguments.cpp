#include "arguments.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>

namespace kvtile {
namespace {

constexpr char kMinus = '\x01';

bool isDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

// No option starts with a digit or a point.
bool isNegativeNumber(const std::string& argument) {
  const std::size_t first = argument.size() > 1 && argument[1] == '.' ? 2 : 1;
  return argument.size() > first && argument[0] == '-' && isDigit(argument[first]);
}

}  // namespace

std::vector<std::string> collectArguments(int count, char** values) {
  std::vector<std::string> arguments;
  for (int i = count - 1; i > 0; --i) {
    std::string argument = values[i];
    if (isNegativeNumber(argument)) {
      argument[0] = kMinus;
    }
    arguments.push_back(argument);
  }
  return arguments;
}

std::string withMinus(std::string text) {
  std::replace(text.begin(), text.end(), kMinus, '-');
  return text;
}

std::optional<std::uint64_t> parseSize(const std::string& text) {
  constexpr const char* kSuffixes = "KMGT";
  const std::size_t digits = text.find_first_not_of("0123456789");
  std::uint64_t value = 0;
  for (const char digit : text.substr(0, digits)) {
    if (value > (UINT64_MAX - 9) / 10) {
      return std::nullopt;
    }
    value = value * 10 + static_cast<std::uint64_t>(digit - '0');
  }
  if (digits == std::string::npos) {
    return text.empty() ? std::nullopt : std::optional(value);
  }
  const auto* suffix =
      std::find(kSuffixes, kSuffixes + 4, static_cast<char>(std::toupper(static_cast<unsigned char>(text[digits]))));
  const auto shift = 10 * (suffix - kSuffixes + 1);
  if (digits == 0 || digits + 1 != text.size() || suffix == kSuffixes + 4 || value > (UINT64_MAX >> shift)) {
    return std::nullopt;
  }
  return value << shift;
}

std::optional<std::uint32_t> parseWhole(const std::string& text, std::uint32_t highest) {
  const bool digitsOnly = text.find_first_not_of("0123456789") == std::string::npos;
  const auto value = digitsOnly ? parseSize(text) : std::nullopt;
  return value && *value <= highest ? std::optional(static_cast<std::uint32_t>(*value)) : std::nullopt;
}

std::optional<double> parseNumber(const std::string& text) {
  const std::string plain = withMinus(text);
  double value = 0;
  const auto [end, error] = std::from_chars(plain.data(), plain.data() + plain.size(), value);
  const bool whole = error == std::errc() && end == plain.data() + plain.size();
  return whole && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

std::optional<Placement> parsePlacement(const std::string& text) {
  if (text == "auto") {
    return Placement::Automatic;
  }
  if (text == "memory") {
    return Placement::Memory;
  }
  return text == "file" ? std::optional(Placement::Files) : std::nullopt;
}

}  // namespace kvtile
