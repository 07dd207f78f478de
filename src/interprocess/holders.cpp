#include "interprocess/holders.h"

#include <filesystem>

#include "cache/file_mapping_file_path_helper.h"
#include "interprocess/tile_image_interprocess_json_helper.h"
#include "platform/paths.h"
#include "platform/win_interprocess.h"

namespace interprocess {

using platform::FileLock;

std::unique_ptr<const cache::FileUsers> Holders::find() {
  return std::make_unique<Holders>(SharedImageFiles::ofUser());
}

Holders::Holders(const SharedImageFiles& files) {
  for (const std::wstring& identifier : files.identifiersWithDescriptor()) {
    if (isHeld(files.lockFile(identifier))) {
      addFilesOf(identifier, files);
    }
  }
}

// Without a lock file there is no holder.
bool Holders::isHeld(const std::wstring& lockFile) {
  std::error_code unknown;
  if (!std::filesystem::exists(platform::filesystemPath(lockFile), unknown) && !unknown) {
    return false;
  }
  try {
    auto lock = std::make_unique<FileLock>(platform::narrowPath(lockFile), FileLock::IfMissing::fail);
    if (!lock->tryExclusive()) {
      return true;
    }
    withoutHolder_.push_back(std::move(lock));
    return false;
  } catch (const win_interprocess::interprocess_exception&) {
    return true;  // rather too many files are kept than one too few
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
      filesInUse_.insert(cache::FileMappingFilePathHelper::filePath(image.dirList[file.dirIndex], image.prefix,
                                                                    image.suffix, file.fileNumber));
    }
  }
}

}  // namespace interprocess
