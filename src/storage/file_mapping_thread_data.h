// Which tiles of which image each thread has in use.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_map>

#include "platform/threads.h"
#include "storage/tile_area.h"

namespace storage {

// True while the owner of a key lives. Keys are addresses and come back: a record counts only with the flag of its own
// owner.
using AliveFlag = std::shared_ptr<std::atomic<bool>>;

// The areas of one thread. Only that thread may use it.
class ThreadLocalData final : public platform::ThreadObject {
 public:
  // One thread's area for one image.
  struct AreaRecord {
    std::uint64_t key = 0;
    AliveFlag alive;
    TileArea area;
  };

  // The calling thread's, made on its first use; it goes when the thread ends.
  static ThreadLocalData& ofThread();

  // The calling thread's if it has one.
  static ThreadLocalData* ofThreadIfAny();

  ThreadLocalData();
  ~ThreadLocalData() override;

  // Makes `newArea` the area for `key` and puts the one before, empty at first, into `oldArea`. Throws the text
  // "check your code!", after logging it, if key is 0 or the calling thread is another one. Returns the record, which
  // is valid until the next call.
  const std::shared_ptr<AreaRecord>& updateArea(std::uint64_t key, const AliveFlag& alive, const TileArea& newArea,
                                                TileArea& oldArea);

  // Removes the record for `key`; false if there is none. Throws as updateArea does.
  bool check(std::uint64_t key);

  std::size_t recordCount() const { return records_.size(); }

 private:
  // FNV-1a over the bytes of the key.
  struct KeyHash {
    std::size_t operator()(std::uint64_t key) const noexcept;
  };

  void checkThread() const;
  std::shared_ptr<AreaRecord> findOrCreate(std::uint64_t key, const AliveFlag& alive);
  void purgeIfGrown();

  std::uint32_t ownerThreadId_;
  std::unordered_map<std::uint64_t, std::shared_ptr<AreaRecord>, KeyHash> records_;
  std::uint64_t purgeThreshold_;
  std::shared_ptr<AreaRecord> lastRecord_;  // the one used most recently
};

// The areas of one image, whatever the thread.
class IFileMappingThreadData {
 public:
  IFileMappingThreadData() = default;
  IFileMappingThreadData(const IFileMappingThreadData&) = delete;
  IFileMappingThreadData& operator=(const IFileMappingThreadData&) = delete;
  virtual ~IFileMappingThreadData() = default;

  virtual void begin() = 0;

  // Forgets the calling thread; false if it was not known.
  virtual bool check() = 0;

  // Makes `newArea` the calling thread's area and puts the one before into `oldArea`.
  virtual void updateArea(const TileArea& newArea, TileArea& oldArea) = 0;

  // The same with the empty area.
  virtual void clearArea(TileArea& oldArea) = 0;
};

class FileMappingThreadData final : public IFileMappingThreadData {
 public:
  explicit FileMappingThreadData(AliveFlag alive) : alive_(std::move(alive)) {}

  // Records of other threads stay behind, marked dead.
  ~FileMappingThreadData() override;

  void begin() override {}
  bool check() override;
  void updateArea(const TileArea& newArea, TileArea& oldArea) override;
  void clearArea(TileArea& oldArea) override { updateArea({}, oldArea); }

 private:
  std::uint64_t key() const { return reinterpret_cast<std::uint64_t>(this); }

  AliveFlag alive_;
};

}  // namespace storage
