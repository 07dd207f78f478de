// Tiles in memory-mapped files.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/win_interprocess.h"
#include "storage/block_center.h"
#include "storage/file_mapping_block.h"
#include "storage/file_mapping_thread_data.h"

namespace cache {
class FileMappingDirHelper;
}

namespace interprocess {
class InterprocessFileMappingInfo;
class InterprocessReleaseResourceOwnership;
}  // namespace interprocess

namespace storage {

// Every tile's bytes are a backing file of their own in one of the cache folders. A tile is mapped while it is in the
// area of at least one thread: the tiles that the thread announced last. Any thread may announce; threads in different
// tiles do not meet, and a tile in several areas is mapped once. The files go with the strategy; those of a shared
// image with the last strategy that holds the image, whatever its process.
class FileMappingStorageStrategy final : public BlockCenter::IStorageStrategy {
 public:
  // Writes tiles back before they are unmapped.
  class Flusher {
   public:
    Flusher() = default;
    Flusher(const Flusher&) = delete;
    Flusher& operator=(const Flusher&) = delete;
    virtual ~Flusher() = default;

    virtual void start() = 0;
    virtual void stop() = 0;

    // Takes a share of the region of the tile at (rowIndex, colIndex) and drops it when the region is written.
    virtual void flush(std::shared_ptr<win_interprocess::mapped_region> region, std::uint64_t rowIndex,
                       std::uint64_t colIndex) = 0;
  };

  // Makes zero-filled files for tiles of the given sizes, each a multiple of the allocation granularity. Null, with a
  // logged reason and nothing left on the disk, if a folder cannot be had or has no room for all of them, or a file
  // cannot be made.
  static std::shared_ptr<FileMappingStorageStrategy> createNormal(const TileByteSizes& tileByteSizes);

  // What processes tell each other about the files of an image; not null.
  using SharedFiles = std::shared_ptr<interprocess::InterprocessFileMappingInfo>;

  // The same for an image that other processes can attach to as `identifier`; `info` then tells of the files.
  static std::shared_ptr<BlockCenter> createInterprocessA(const TileByteSizes& tileByteSizes, const SharedFiles& info,
                                                          const std::wstring& identifier);

  // Takes the files that `info` tells of for tiles of the given sizes. Null, with a logged reason, if they are not what
  // it says.
  static std::shared_ptr<BlockCenter> createInterprocessB(const TileByteSizes& tileByteSizes, const SharedFiles& info,
                                                          const std::wstring& identifier);

  FileMappingStorageStrategy();

  // Deletes the files, and the descriptor with them, unless another strategy holds them. Should run on the thread that
  // made the strategy; it warns if not.
  ~FileMappingStorageStrategy() override;

  void beginCurrentThreadIO() override { threadData_->begin(); }

  // Lets go of the calling thread's area and forgets the thread.
  void endCurrentThreadIO() override;

  // Makes `area` the calling thread's area: what leaves it is let go, what enters it is mapped. If a tile cannot be
  // mapped, the thread keeps none at all; the next announcement tries again.
  bool updateCache(const TileArea& area, bool write) override;

  // The file that blocks refer to by `index`.
  const win_interprocess::file_mapping& file(std::uint64_t index) const { return *files_[index].mapping; }

  Flusher& flusher() const { return *flusher_; }

 private:
  using FileMappingInfo = interprocess::InterprocessFileMappingInfo;

  bool postInitializeCommon(const TileByteSizes& tileByteSizes, const std::wstring& identifier);
  void holdSharedImage(const std::wstring& identifier);
  bool postInitializeInterprocessA(const TileByteSizes& tileByteSizes, const SharedFiles& info,
                                   const std::wstring& identifier);
  bool createFilesAndBlocks(const TileByteSizes& tileByteSizes, const cache::FileMappingDirHelper& folders,
                            FileMappingInfo* info);
  bool createFile(const cache::FileMappingDirHelper& folders, std::uint64_t bytes, FileMappingInfo* info);
  bool postInitializeInterprocessB(const TileByteSizes& tileByteSizes, const SharedFiles& info,
                                   const std::wstring& identifier);
  bool attachFilesAndBlocks(const TileByteSizes& tileByteSizes, const FileMappingInfo& info);
  bool attachFile(const FileMappingInfo& info, std::uint64_t fileIndex, std::uint64_t bytes);
  bool createBlock(const TileByteSizes& tileByteSizes, std::uint64_t index, std::uint64_t offset, const char* function);
  bool mayRemoveFiles();
  void removeDescriptor() noexcept;
  void removeFiles() noexcept;

  FileMappingBlock& fileBlock(std::uint64_t row, std::uint64_t column) const;
  void letGo(const TileArea& area, const TileArea& kept) const;
  bool use(const TileArea& area, const TileArea& kept, bool write) const;

  struct BackingFile {
    std::string narrowPath;
    std::shared_ptr<win_interprocess::file_mapping> mapping;
  };

  std::vector<BackingFile> files_;
  std::shared_ptr<Flusher> flusher_;
  std::shared_ptr<IFileMappingThreadData> threadData_;
  SharedFiles sharedFiles_;                  // of a shared image
  std::wstring interprocessIdJsonFilePath_;  // of a shared image: its descriptor
  std::wstring lockFilePath_;                // and the lock file of its holders
  std::shared_ptr<bool> hasOwnership_;       // whether this was its last holder, once ownership_ is gone
  std::shared_ptr<interprocess::InterprocessReleaseResourceOwnership> ownership_;
  std::uint32_t threadIdOfConstructor_;
  std::uint32_t processIdOfConstructor_;
};

// Writes back on the calling thread; starts and stops nothing.
class SyncFlusher final : public FileMappingStorageStrategy::Flusher {
 public:
  static std::shared_ptr<SyncFlusher> create();

  // Tiles whose row and whose column are each a multiple of 4, 7, 11, 13, 17, 19 or 23 (0 is one) are left to the
  // system, which writes them in its own time. The pattern thins out the writes while areas move over the grid; kept.
  static bool leavesToSystem(std::uint64_t rowIndex, std::uint64_t colIndex);

  void start() override {}
  void stop() override {}
  void flush(std::shared_ptr<win_interprocess::mapped_region> region, std::uint64_t rowIndex,
             std::uint64_t colIndex) override;
};

}  // namespace storage
