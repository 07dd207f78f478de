// 64-bit words with the first byte most significant: the bits of a packed run in reading order.
#pragma once

#include <cstdint>

namespace core {

inline std::uint64_t loadBigEndian(const std::uint8_t* bytes) {
  std::uint64_t word = 0;
  for (int i = 0; i < 8; ++i) {
    word = word << 8 | bytes[i];
  }
  return word;
}

inline void storeBigEndian(std::uint8_t* bytes, std::uint64_t word) {
  for (int i = 7; i >= 0; --i) {
    bytes[i] = static_cast<std::uint8_t>(word);
    word >>= 8;
  }
}

}  // namespace core
