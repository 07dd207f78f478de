// The names of backing files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace cache {

// A backing file is called "process_" + the maker's process id + "_" + a number + the extension, so that whoever finds
// it can tell whether its maker still runs.
class FileMappingFilePathHelper {
 public:
  static constexpr std::wstring_view kExtension = L".korvaneFileMapping";

  struct FileInfo {
    std::wstring path;
    std::uint64_t number = 0;
  };

  // A name that no other file of this process has, whatever the folder; any thread may ask. Nothing if `folder` is
  // empty.
  static std::optional<FileInfo> getUniqueFileInfo(const std::wstring& folder);

  // The path of the file `number` in `folder`; a "/" comes in between if the folder does not end with one.
  static std::wstring filePath(const std::wstring& folder, std::wstring_view prefix, std::wstring_view extension,
                               std::uint64_t number);

  // What the names of this process's files begin with.
  static std::wstring prefix();

  // The process id in the file name of `path`; 0 if its place holds no number. Nothing if the name has no such place.
  static std::optional<std::int32_t> processIdOf(const std::wstring& path);
};

}  // namespace cache
