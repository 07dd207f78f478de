// A tone curve as a table: one output value for every value that a sample can have.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace curve {

// Filled by the one who made it, then shared and never changed again: any number of threads may read it.
class LookupTable {
 public:
  // 2^bitsPerSample entries of bitsPerSample / 8 bytes, all 0. Null if the depth is no multiple of 8 or has more
  // entries than can be counted, and, with a logged reason, if there is no memory.
  static std::shared_ptr<LookupTable> create(std::uint32_t bitsPerSample);

  std::uint32_t bitsPerSample() const { return bitsPerSample_; }
  std::uint64_t entryCount() const { return entryCount_; }

  // The entries in ascending order of the samples they are for, each as a sample lies in memory: entry i of an 8-bit
  // table is byte i, of a 16-bit table the 16-bit value, in the machine's byte order, at byte 2 * i.
  std::uint8_t* buffer() { return buffer_.data(); }
  const std::uint8_t* buffer() const { return buffer_.data(); }
  std::uint64_t bufferBytes() const { return buffer_.size(); }

  // The same as numbers; `Sample` has bitsPerSample() bits.
  template <typename Sample>
  Sample* entries() {
    return reinterpret_cast<Sample*>(buffer_.data());
  }

 private:
  LookupTable(std::uint32_t bitsPerSample, std::uint64_t entryCount);

  std::uint32_t bitsPerSample_;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t entryCount_;
};

}  // namespace curve
