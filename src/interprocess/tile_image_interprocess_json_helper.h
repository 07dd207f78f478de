// The descriptor of a shared image: the file by which other processes find it.
#pragma once

#include <string>

#include "interprocess/interprocess_tile_image_info.h"
#include "interprocess/shared_image_files.h"

namespace interprocess {

// Writes and reads the descriptor of one identifier. Failures are logged and never thrown.
class TileImageInterprocessJsonHelper {
 public:
  explicit TileImageInterprocessJsonHelper(std::wstring interprocessTileImageId,
                                           const SharedImageFiles& files = SharedImageFiles::ofUser());

  // Writes the descriptor in place of the one that there may be. False if that fails.
  bool serialize(const InterprocessTileImageInfo& info) const;

  // Reads the descriptor; with `briefOnly` the image's format and grid only, not its files. False if there is none or
  // it cannot be understood; `info` may hold a part of it then.
  bool unserialize(InterprocessTileImageInfo& info, bool briefOnly) const;

  const std::wstring& interprocessIdJsonFilePath() const { return interprocessIdJsonFilePath_; }

 private:
  bool write(const InterprocessTileImageInfo& info) const;
  bool read(InterprocessTileImageInfo& info, bool briefOnly) const;

  std::wstring interprocessTileImageId_;
  std::wstring interprocessIdJsonFilePath_;
};

}  // namespace interprocess
