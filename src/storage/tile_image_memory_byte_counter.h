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

  // The process's counter, made on first use. It is there until the process ends: a host's static objects may release
  // their images after this library's static objects are gone.
  static std::shared_ptr<TileImageMemoryByteCounter> instance() {
    using Shared = std::shared_ptr<TileImageMemoryByteCounter>;
    static const Shared& counter = *new Shared(std::make_shared<TileImageMemoryByteCounter>());
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
