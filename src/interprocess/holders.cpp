#include "interprocess/holders.h"

#include <exception>
#include <filesystem>

#include "cache/file_mapping_file_path_helper.h"
#include "interprocess/tile_image_interprocess_json_helper.h"
#include "platform/paths.h"

namespace interprocess {

using platform::FileLock;

std::optional<Claim> claimUnlessHeld(const std::wstring& lockFile) {
  try {
    // What is no file cannot be held.
    const auto type = std::filesystem::symlink_status(platform::filesystemPath(lockFile)).type();
    if (type != std::filesystem::file_type::regular) {
      return Claim();
    }
    auto lock = std::make_unique<FileLock>(platform::narrowPath(lockFile), FileLock::IfMissing::fail);
    if (lock->tryExclusive()) {
      return lock;
    }
  } catch (const std::exception&) {  // rather too many images count as held than one too few
  }
  return std::nullopt;
}

std::unique_ptr<const cache::FileUsers> Holders::find() {
  return std::make_unique<Holders>(SharedImageFiles::ofUser());
}

Holders::Holders(const SharedImageFiles& files) {
  for (const std::wstring& identifier : files.identifiersWithDescriptor()) {
    if (auto claim = claimUnlessHeld(files.lockFile(identifier))) {
      withoutHolder_.push_back(std::move(*claim));
    } else {
      addFilesOf(identifier, files);
    }
  }
}

void Holders::addFilesOf(const std::wstring& identifier, const SharedImageFiles& files) {
  InterprocessTileImageInfo info;
  if (!TileImageInterprocessJsonHelper(identifier, files).unserialize(info, false)) {
    return;
  }
  const InterprocessFileMappingInfo& image = *info.interprocessFileMappingInfo;
  for (const auto& file : image.fileBriefInfoList) {
    if (file.dirIndex < image.dirList.size()) {
      keysOfFilesInUse_.insert(platform::fileKey(cache::FileMappingFilePathHelper::filePath(
          image.dirList[file.dirIndex], image.prefix, image.suffix, file.fileNumber)));
    }
  }
}

}  // namespace interprocess
