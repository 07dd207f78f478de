// What processes that share an image tell each other about it.
#pragma once

#include <rapidjson/document.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace interprocess {

// The backing files of a shared image.
class InterprocessFileMappingInfo {
 public:
  // One backing file.
  struct FileBriefInfo {
    std::uint64_t dirIndex = 0;  // of its folder in dirList
    std::uint64_t fileBytes = 0;
    std::uint64_t fileNumber = 0;  // as FileMappingFilePathHelper gave it to the file
  };

  std::vector<std::wstring> dirList;  // the creator's cache folders
  std::wstring prefix;                // of the files' names
  std::wstring suffix;
  std::uint64_t blocksPerFile = 0;               // consecutive tiles in one file
  std::vector<FileBriefInfo> fileBriefInfoList;  // in the order of the tiles that the files hold

  // Whether a descriptor tells of the files, so that other processes may have them in use. Not a part of it.
  bool described = false;

  // Appends a file. One whose folder is not in dirList is logged and left out.
  void addFile(std::uint64_t dirIndex, std::uint64_t fileBytes, std::uint64_t fileNumber);

  // The path of a file and its size in bytes. Nothing, with a logged reason, if there is no such file or its folder is
  // not in dirList.
  std::optional<std::pair<std::wstring, std::uint64_t>> getFileDetaiInfo(std::uint64_t fileIndex) const;

  // To and from a JSON object. What has the wrong type reads as 0 or empty; false without a list of folders or of
  // files, or if a file is not described by three numbers. Throws std::range_error for text that is not UTF-8.
  void serialize(rapidjson::Value& object, rapidjson::Document::AllocatorType& allocator) const;
  bool unserialize(const rapidjson::Value& object);
};

// A shared image: its format and its grid of tiles.
struct InterprocessTileImageInfo {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t samplesPerPixel = 0;
  std::uint32_t bitsPerSample = 0;
  std::int32_t sampleformat = -1;
  std::int32_t scanlineOperation = 3;
  std::uint64_t tileBaseWidth = 0;  // pixels of every tile outside the last column and row
  std::uint64_t tileBaseHeight = 0;
  std::uint64_t tileRowCount = 0;
  std::uint64_t tileColCount = 0;
  std::shared_ptr<InterprocessFileMappingInfo> interprocessFileMappingInfo =
      std::make_shared<InterprocessFileMappingInfo>();
};

}  // namespace interprocess
