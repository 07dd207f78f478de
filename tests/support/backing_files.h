// The files that images of this process are kept in.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "cache/file_mapping_file_path_helper.h"
#include "storage/clean_up.h"

namespace support {

struct BackingFile {
  std::filesystem::path path;
  std::uint64_t number = 0;

  std::string name() const { return path.filename().string(); }
  std::uint64_t bytes() const { return std::filesystem::file_size(path); }
};

// In the order in which they were made: tile by tile, row by row.
inline std::vector<BackingFile> backingFiles() {
  const std::wstring prefix = cache::FileMappingFilePathHelper::prefix();
  std::vector<BackingFile> files;
  for (const std::wstring& folder : storage::cacheFolders()->rootDirList()) {
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      const std::wstring name = entry.path().filename().wstring();
      if (name.starts_with(prefix)) {
        files.push_back({entry.path(), std::stoull(name.substr(prefix.size()))});
      }
    }
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.number < b.number; });
  return files;
}

}  // namespace support
