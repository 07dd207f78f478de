// One tile in a memory-mapped file.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/win_interprocess.h"
#include "storage/block.h"

namespace storage {

class FileMappingStorageStrategy;

// Mapped while it has users, the thread areas that cover it; the last one that leaves unmaps it.
class FileMappingBlock final : public Block {
 public:
  // The bytes are `size` ones, from `offset` on, of the file at `fileIndex` of `owner`, which outlives the block.
  FileMappingBlock(std::uint64_t size, const FileMappingStorageStrategy& owner, std::uint64_t rowIndex,
                   std::uint64_t colIndex, std::uint64_t fileIndex, std::uint64_t offset)
      : Block(size), owner_(owner), rowIndex_(rowIndex), colIndex_(colIndex), fileIndex_(fileIndex), offset_(offset) {}

  // Null, with a logged reason, without a user.
  std::uint8_t* load() override;
  void release() override {}

  // Maps the block if it is not and counts one user more. False, with a logged reason and nothing counted, if it cannot
  // be mapped.
  bool ensureValidAndUse(bool bWrite);

  // Counts one user less. The last one unmaps the block, flushed if any user since it was mapped asked to write: true
  // then, and for a block without users; false while others use it.
  bool tryFlushAndResetMappedRegion();

  std::uint32_t useCount() const { return useCount_; }

 private:
  bool map();

  const FileMappingStorageStrategy& owner_;
  std::uint64_t rowIndex_;
  std::uint64_t colIndex_;
  std::uint64_t fileIndex_;
  std::uint64_t offset_;  // 0 where each file holds one block
  std::mutex mutex_;      // guards what follows; load reads the two atomics without it
  std::atomic<std::uint8_t*> buf_{nullptr};
  std::atomic<std::uint32_t> useCount_{0};
  bool write_ = false;
  std::shared_ptr<win_interprocess::mapped_region> region_;
};

}  // namespace storage
