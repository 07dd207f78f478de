// The words of the command line: how they reach CLI11, and what they stand for.
#ifndef KVTILE_ARGUMENTS_H
#define KVTILE_ARGUMENTS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "image.h"

namespace kvtile {

// The arguments in the order that CLI11 wants, last one first. It would take numbers such as -90 and -.5 for options,
// so that something else stands in for their minus.
std::vector<std::string> collectArguments(int count, char** values);

// An argument as it was given.
std::string withMinus(std::string text);

// "64M": bytes, or K, M, G or T of 1024 each; nothing for other texts and for sizes beyond 64 bits.
std::optional<std::uint64_t> parseSize(const std::string& text);

// "1200": digits only, up to `highest`; nothing for other texts.
std::optional<std::uint32_t> parseWhole(const std::string& text, std::uint32_t highest);

// "-0.25", "2", "1e-1": nothing for other texts and for what no finite number is.
std::optional<double> parseNumber(const std::string& text);

// "auto", "memory" or "file"; nothing for other texts.
std::optional<Placement> parsePlacement(const std::string& text);

}  // namespace kvtile

#endif
