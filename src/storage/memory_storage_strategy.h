// Tiles in heap memory.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "storage/block_center.h"

namespace storage {

// A block in a heap buffer of its own, zero-filled at first.
class MemoryBlock final : public Block {
 public:
  // Null, with a logged reason, if there is no memory for it.
  static std::shared_ptr<MemoryBlock> create(std::uint64_t size);

  std::uint8_t* load() override { return buffer_.get(); }
  void release() override {}

 private:
  struct Free {
    void operator()(std::uint8_t* buffer) const { std::free(buffer); }
  };
  using Buffer = std::unique_ptr<std::uint8_t[], Free>;

  MemoryBlock(std::uint64_t size, Buffer buffer) : Block(size, buffer.get()), buffer_(std::move(buffer)) {}

  Buffer buffer_;
};

// Heap blocks are always loadable: announcements and batches mean nothing here.
class MemoryStorageStrategy final : public BlockCenter::IStorageStrategy {
 public:
  // Null, with a logged reason, if there is no memory for the blocks.
  static std::shared_ptr<MemoryStorageStrategy> create(const TileByteSizes& tileByteSizes);

  void beginCurrentThreadIO() override {}
  void endCurrentThreadIO() override {}
  bool updateCache(const TileArea&, bool) override { return true; }

 private:
  bool postInitialize(const TileByteSizes& tileByteSizes);
  bool createBlocks(const TileByteSizes& tileByteSizes);
};

}  // namespace storage
