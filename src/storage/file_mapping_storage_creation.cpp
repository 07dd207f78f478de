// How the files and blocks of an image come about.
#include <algorithm>
#include <exception>
#include <filesystem>
#include <new>
#include <optional>
#include <string>

#include "base/log.h"
#include "base/process_values.h"
#include "cache/file_mapping_dir_helper.h"
#include "cache/file_mapping_file_path_helper.h"
#include "interprocess/interprocess_release_resource_ownership.h"
#include "interprocess/interprocess_tile_image_info.h"
#include "interprocess/shared_image_files.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/utf8.h"
#include "platform/volumes.h"
#include "storage/clean_up.h"
#include "storage/file_mapping_storage_strategy.h"

namespace storage {
namespace {

using base::fail;
using base::ull;
using cache::FileMappingDirHelper;
using cache::FileMappingFilePathHelper;
using interprocess::InterprocessReleaseResourceOwnership;
using interprocess::SharedImageFiles;
using platform::shownUtf8;

constexpr const char* kPostInitializeCommon = "FileMappingStorageStrategy::postInitializeCommon";
constexpr const char* kPostInitialize = "FileMappingStorageStrategy::postInitializeInterprocessA";
constexpr const char* kPostInitializeB = "FileMappingStorageStrategy::postInitializeInterprocessB";

bool failWithException(const std::exception& exception, const char* function) {
  base::logger().log(ember_logger::error, "[%s] postInitialize failed [reason: exception %s]", function,
                     exception.what());
  return false;
}

bool exists(const std::wstring& path) {
  std::error_code unknown;
  return std::filesystem::exists(platform::filesystemPath(path), unknown);
}

// What a descriptor names to be mapped, and removed in the end, has to be one of the library's own files.
bool isBackingFile(const std::wstring& path, const std::wstring& folder) {
  return path.ends_with(FileMappingFilePathHelper::kExtension) &&
         path.find_first_of(L"/\\:", folder.size() + 1) == std::wstring::npos;
}

// A single folder is taken as it is, so that its disk has to be looked at before anything is made: it would be full
// before a file failed. Of several folders each file finds one with room to spare. Where the system does not tell,
// making the files will.
bool roomFor(std::uint64_t bytes, const FileMappingDirHelper& folders) {
  if (folders.rootDirList().size() != 1) {
    return true;
  }
  const std::wstring& folder = folders.rootDirList().front();
  const auto available = platform::freeBytes(folder);
  if (!available || bytes <= *available) {
    return true;
  }
  base::logger().log(ember_logger::error,
                     "[%s] the files of the image take %llu bytes, but %s has %llu bytes free: make room, or name a "
                     "folder on a larger disk under \"rootDirList\" in %s",
                     kPostInitialize, ull{bytes}, shownUtf8(folder).c_str(), ull{*available},
                     shownUtf8(folders.host().configurationFile()).c_str());
  return false;
}

}  // namespace

std::shared_ptr<FileMappingStorageStrategy> FileMappingStorageStrategy::createNormal(
    const TileByteSizes& tileByteSizes) {
  auto strategy = std::make_shared<FileMappingStorageStrategy>();
  if (!strategy->postInitializeInterprocessA(tileByteSizes, nullptr, {})) {
    fail("[%s] create failed", "FileMappingStorageStrategy::createNormal");
    return nullptr;
  }
  return strategy;
}

std::shared_ptr<BlockCenter> FileMappingStorageStrategy::createInterprocessA(const TileByteSizes& tileByteSizes,
                                                                             const SharedFiles& info,
                                                                             const std::wstring& identifier) {
  cleanUpOnce();
  auto strategy = std::make_shared<FileMappingStorageStrategy>();
  if (!strategy->postInitializeInterprocessA(tileByteSizes, info, identifier)) {
    fail("[%s] create failed", "FileMappingStorageStrategy::createInterprocessA");
    return nullptr;
  }
  return std::make_shared<BlockCenter>(std::move(strategy));
}

std::shared_ptr<BlockCenter> FileMappingStorageStrategy::createInterprocessB(const TileByteSizes& tileByteSizes,
                                                                             const SharedFiles& info,
                                                                             const std::wstring& identifier) {
  cleanUpOnce();
  auto strategy = std::make_shared<FileMappingStorageStrategy>();
  if (!strategy->postInitializeInterprocessB(tileByteSizes, info, identifier)) {
    fail("[%s] create failed", "FileMappingStorageStrategy::createInterprocessB");
    return nullptr;
  }
  return std::make_shared<BlockCenter>(std::move(strategy));
}

bool FileMappingStorageStrategy::postInitializeCommon(const TileByteSizes& tileByteSizes,
                                                      const std::wstring& identifier) {
  if (cacheFolders()->rootDirList().empty()) {
    return fail("[%s] FileMappingDirHelper instance is invalid", kPostInitializeCommon);
  }
  if (!identifier.empty()) {
    holdSharedImage(identifier);
  }
  if (tileByteSizes.rows == 0 || tileByteSizes.columns == 0) {
    return fail("[%s] code error, check your code", kPostInitializeCommon);
  }
  flusher_ = SyncFlusher::create();
  flusher_->start();
  threadData_ = std::make_shared<FileMappingThreadData>(std::make_shared<std::atomic<bool>>(true));
  return true;
}

// An image whose lock file cannot be had is made all the same. Others take it for one without a holder.
void FileMappingStorageStrategy::holdSharedImage(const std::wstring& identifier) {
  const SharedImageFiles files = SharedImageFiles::ofUser();
  interprocessIdJsonFilePath_ = files.descriptor(identifier);
  lockFilePath_ = files.lockFile(identifier);
  hasOwnership_ = std::make_shared<bool>(false);
  ownership_ = InterprocessReleaseResourceOwnership::create(platform::narrowPath(lockFilePath_), hasOwnership_);
  if (ownership_ == nullptr) {
    fail("[%s] InterprocessReleaseResourceOwnership::create failed!", kPostInitializeCommon);
  }
}

bool FileMappingStorageStrategy::postInitializeInterprocessA(const TileByteSizes& tileByteSizes,
                                                             const SharedFiles& info, const std::wstring& identifier) {
  try {
    sharedFiles_ = info;
    return postInitializeCommon(tileByteSizes, identifier) &&
           createFilesAndBlocks(tileByteSizes, *cacheFolders(), info.get());
  } catch (const std::exception& exception) {
    return failWithException(exception, kPostInitialize);
  }
}

bool FileMappingStorageStrategy::createFilesAndBlocks(const TileByteSizes& tileByteSizes,
                                                      const FileMappingDirHelper& folders, FileMappingInfo* info) {
  if (!roomFor(tileByteSizes.total(), folders)) {
    return false;
  }
  if (info != nullptr) {
    info->dirList = folders.rootDirList();
    info->prefix = FileMappingFilePathHelper::prefix();
    info->suffix = FileMappingFilePathHelper::kExtension;
    info->blocksPerFile = 1;
  }
  const std::uint64_t count = tileByteSizes.rows * tileByteSizes.columns;
  files_.reserve(count);
  blocks_.assign(tileByteSizes.rows, std::vector<std::shared_ptr<Block>>(tileByteSizes.columns));
  for (std::uint64_t index = 0; index < count; ++index) {
    const std::uint64_t bytes = tileByteSizes.at(index / tileByteSizes.columns, index % tileByteSizes.columns);
    if (!createFile(folders, bytes, info) || !createBlock(tileByteSizes, index, 0, kPostInitialize)) {
      return false;
    }
  }
  return true;
}

// The block of the tile at `index`, row by row, in the file that was added last.
bool FileMappingStorageStrategy::createBlock(const TileByteSizes& tileByteSizes, std::uint64_t index,
                                             std::uint64_t offset, const char* function) {
  const std::uint64_t row = index / tileByteSizes.columns;
  const std::uint64_t column = index % tileByteSizes.columns;
  try {
    blocks_[row][column] = std::make_shared<FileMappingBlock>(tileByteSizes.at(row, column), *this, row, column,
                                                              files_.size() - 1, offset);
    return true;
  } catch (const std::bad_alloc&) {
    return fail("[%s] postInitialize failed [reason: block create failed]", function);
  }
}

bool FileMappingStorageStrategy::createFile(const FileMappingDirHelper& folders, std::uint64_t bytes,
                                            FileMappingInfo* info) {
  if (bytes % base::allocationGranularity() != 0) {
    return fail("[%s] fileBytes is not a multiple of pageSize, check your code", kPostInitialize);
  }
  const std::int64_t folderIndex = folders.getSuitableRootDirIndex(bytes);
  const std::wstring folder = folders.rootDir(folderIndex);
  if (folder.empty()) {
    return fail("[%s] obtain a suitable dir failed", kPostInitialize);
  }
  std::optional<FileMappingFilePathHelper::FileInfo> file;
  std::string narrowPath;
  std::error_code error;
  do {
    file = FileMappingFilePathHelper::getUniqueFileInfo(folder);
    if (!file) {
      return fail("[%s] FileMappingFilePathHelper::getUniqueFileInfo failed", kPostInitialize);
    }
    narrowPath = platform::narrowPath(file->path);
    error = platform::createZeroFile(narrowPath, bytes);
    // A process that had this one's id may have left its file, or have it in use still, in another container.
  } while (error == std::errc::file_exists);
  if (error) {
    base::logger().log(ember_logger::error, "[%s] %s of %llu bytes cannot be made: %s", kPostInitialize,
                       shownUtf8(file->path).c_str(), ull{bytes}, error.message().c_str());
    return fail("[%s] postInitialize failed [reason: createFile failed]", kPostInitialize);
  }
  files_.push_back({std::move(narrowPath), nullptr});
  if (info != nullptr) {
    info->addFile(static_cast<std::uint64_t>(folderIndex), bytes, file->number);
  }
  files_.back().mapping =
      std::make_shared<win_interprocess::file_mapping>(files_.back().narrowPath, win_interprocess::kReadWrite);
  return true;
}

bool FileMappingStorageStrategy::postInitializeInterprocessB(const TileByteSizes& tileByteSizes,
                                                             const SharedFiles& info, const std::wstring& identifier) {
  try {
    sharedFiles_ = info;
    if (!postInitializeCommon(tileByteSizes, identifier)) {
      return false;
    }
    if (info == nullptr) {
      return fail("[%s] interprocessFileMappingInfo is nullptr", kPostInitializeB);
    }
    // A clean-up may have found the image without a holder after its descriptor was read.
    if (ownership_ != nullptr && !exists(interprocessIdJsonFilePath_)) {
      return fail("[%s] the image has been cleaned up meanwhile: nobody held it", kPostInitializeB);
    }
    return attachFilesAndBlocks(tileByteSizes, *info);
  } catch (const std::exception& exception) {
    return failWithException(exception, kPostInitializeB);
  }
}

bool FileMappingStorageStrategy::attachFilesAndBlocks(const TileByteSizes& tileByteSizes, const FileMappingInfo& info) {
  if (info.blocksPerFile == 0) {
    return fail("[%s] the descriptor says that a file holds 0 tiles", kPostInitializeB);
  }
  const std::uint64_t count = tileByteSizes.rows * tileByteSizes.columns;
  const std::uint64_t perFile = std::min(info.blocksPerFile, count);
  blocks_.assign(tileByteSizes.rows, std::vector<std::shared_ptr<Block>>(tileByteSizes.columns));
  for (std::uint64_t first = 0; first < count; first += perFile) {
    const std::uint64_t end = std::min(first + perFile, count);
    const auto bytesOf = [&](std::uint64_t index) {
      return tileByteSizes.at(index / tileByteSizes.columns, index % tileByteSizes.columns);
    };
    std::uint64_t fileBytes = 0;
    for (std::uint64_t index = first; index < end; ++index) {
      fileBytes += bytesOf(index);
    }
    if (!attachFile(info, first / perFile, fileBytes)) {
      return false;
    }
    std::uint64_t offset = 0;
    for (std::uint64_t index = first; index < end; offset += bytesOf(index), ++index) {
      if (!createBlock(tileByteSizes, index, offset, kPostInitializeB)) {
        return false;
      }
    }
  }
  return true;
}

// The file is checked before it is taken as one of the image's: what is wrong with it must not cost anyone a file.
bool FileMappingStorageStrategy::attachFile(const FileMappingInfo& info, std::uint64_t fileIndex, std::uint64_t bytes) {
  if (bytes % base::allocationGranularity() != 0) {
    return fail("[%s] fileBytes is not a multiple of pageSize, check your code", kPostInitializeB);
  }
  const auto file = info.getFileDetaiInfo(fileIndex);
  if (!file) {
    return fail("[%s] interprocessFileMappingInfo->getFileDetaiInfo failed, check your code", kPostInitializeB);
  }
  const auto& [path, recordedBytes] = *file;
  if (recordedBytes != bytes) {
    return fail("[%s] fileBytes is wrong, check your code", kPostInitializeB);
  }
  if (!isBackingFile(path, info.dirList[info.fileBriefInfoList[fileIndex].dirIndex])) {
    base::logger().log(ember_logger::error, "[%s] the descriptor names %s, which is no file of an image",
                       kPostInitializeB, shownUtf8(path).c_str());
    return false;
  }
  std::string narrowPath = platform::narrowPath(path);
  const auto presentBytes = platform::fileBytes(narrowPath);
  if (!presentBytes) {
    return fail("[%s] file is not existed, check your code", kPostInitializeB);
  }
  if (*presentBytes != bytes) {
    base::logger().log(ember_logger::error, "[%s] %s has %llu bytes instead of %llu", kPostInitializeB,
                       shownUtf8(path).c_str(), ull{*presentBytes}, ull{bytes});
    return false;
  }
  auto mapping = std::make_shared<win_interprocess::file_mapping>(narrowPath, win_interprocess::kReadWrite);
  files_.push_back({std::move(narrowPath), std::move(mapping)});
  return true;
}

}  // namespace storage
