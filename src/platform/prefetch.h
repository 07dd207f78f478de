// A hint to the processor's caches.
#pragma once

#include <xmmintrin.h>

#include <cstdint>

namespace platform {

// Begins to fetch `bytes` bytes from `address` on. Any address may be given: nothing is read that the program could
// see.
inline void prefetch(const std::uint8_t* address, std::uint64_t bytes) {
  constexpr std::uint64_t kCacheLine = 64;
  for (std::uint64_t offset = 0; offset < bytes; offset += kCacheLine) {
    _mm_prefetch(reinterpret_cast<const char*>(address + offset), _MM_HINT_T0);
  }
}

}  // namespace platform
