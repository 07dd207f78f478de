// The process's budget of heap memory for image tiles.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>

namespace storage {

// Counts what live heap images use and holds the limit that steers new images away from heap memory. Any thread may
// use it; nothing is reserved by looking, so images created at the same time may pass the limit together.
class TileImageMemoryByteCounter {
 public:
  static constexpr std::uint64_t kDefaultMaxBytes = 0x40000000;
  static constexpr std::uint64_t kMinimumMaxBytes = 0x4000000;
  static constexpr std::uint64_t kSmallImageThreshold = 8192;

  // The process's counter, made on first use.
  static std::shared_ptr<TileImageMemoryByteCounter> instance() {
    static const auto counter = std::make_shared<TileImageMemoryByteCounter>();
    return counter;
  }

  // At least kMinimumMaxBytes: smaller values are raised to it.
  void setMaxBytes(std::uint64_t bytes) { maxBytes_ = std::max(bytes, kMinimumMaxBytes); }
  std::uint64_t maxBytes() const { return maxBytes_; }

  void add(std::uint64_t bytes) { usedBytes_ += bytes; }
  void subtract(std::uint64_t bytes) { usedBytes_ -= bytes; }
  std::uint64_t usedBytes() const { return usedBytes_; }

 private:
  std::atomic<std::uint64_t> maxBytes_{kDefaultMaxBytes};
  std::atomic<std::uint64_t> usedBytes_{0};
};

}  // namespace storage
