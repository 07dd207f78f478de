// The storage of one tile's bytes.
#pragma once

#include <cstdint>

namespace storage {

// Tile rows follow each other in a block, each (bitsPerPixel * allocated tile width) / 8 bytes long. Whoever holds a
// block may use it on any thread; it does not serialise writers of the same bytes.
class Block {
 public:
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  virtual ~Block() = default;

  // Begins an access: the address of the block's first byte, valid until the matching `release`. Null, with a logged
  // reason, if the bytes are not available; there is nothing to release then.
  virtual std::uint8_t* load() = 0;

  // Ends an access that `load` began.
  virtual void release() = 0;

  // Bytes of the tile.
  std::uint64_t size() const { return size_; }

  // Where the bytes are if they never move, else null. For hints to the caches: an access goes through `load`.
  const std::uint8_t* residentBytes() const { return residentBytes_; }

 protected:
  explicit Block(std::uint64_t size, const std::uint8_t* residentBytes = nullptr)
      : size_(size), residentBytes_(residentBytes) {}

 private:
  std::uint64_t size_;
  const std::uint8_t* residentBytes_;
};

}  // namespace storage
