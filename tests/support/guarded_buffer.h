// A buffer with canary bytes behind its end.
#pragma once

#include <cstdint>
#include <vector>

namespace support {

class GuardedBuffer {
 public:
  static constexpr std::uint8_t kCanary = 0xA5;

  // Holds `bytes` first, canaries behind.
  explicit GuardedBuffer(const std::vector<std::uint8_t>& bytes) : size_(bytes.size()), bytes_(bytes) {
    bytes_.resize(size_ + kGuardBytes, kCanary);
  }

  // `size` bytes, all canaries.
  explicit GuardedBuffer(std::uint64_t size) : GuardedBuffer(std::vector<std::uint8_t>(size, kCanary)) {}

  std::uint8_t* data() { return bytes_.data(); }
  std::uint64_t size() const { return size_; }

  std::vector<std::uint8_t> contents() const { return {bytes_.begin(), bytes_.begin() + static_cast<long>(size_)}; }

  bool intact() const {
    for (std::uint64_t i = size_; i < bytes_.size(); ++i) {
      if (bytes_[i] != kCanary) {
        return false;
      }
    }
    return true;
  }

 private:
  static constexpr std::uint64_t kGuardBytes = 64;

  std::uint64_t size_;
  std::vector<std::uint8_t> bytes_;
};

}  // namespace support
