// Files as their bytes.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace support {

inline std::string contentsOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// Makes or replaces the file; its folder must be there.
inline void writeFile(const std::filesystem::path& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

}  // namespace support
