// What a process makes of a shared image's descriptor, whoever wrote it: reads it, attaches, and uses the image if that
// worked. "@FOLDER@" in the input stands for a folder with two backing files of 64 KiB, f0 and f1.
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ember_logger/ember_logger.h"
#include "interprocess/tile_image_interprocess_json_helper.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/paths.h"
#include "platform/utf8.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "fuzzed";
constexpr std::uintmax_t kFileBytes = 65536;
constexpr std::uint64_t kMostRowBytes = 1 << 20;

// Everything in a folder in memory that goes when the program ends.
class Sandbox {
 public:
  Sandbox() {
    const fs::path parent = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
    folder_ = parent / ("kvtile-fuzz-" + std::to_string(getpid()));
    fs::create_directories(folder_ / "data");
    setenv("XDG_DATA_HOME", (folder_ / "data").c_str(), 1);
    EmberLogger_SetLevel(5);
    const interprocess::TileImageInterprocessJsonHelper helper(platform::fromUtf8(kIdentifier));
    descriptor_ = platform::filesystemPath(helper.interprocessIdJsonFilePath());
    fs::create_directories(descriptor_.parent_path());
  }
  ~Sandbox() {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // The last holder of an image removes its files.
  void prepare(std::string text) const {
    constexpr std::string_view kFolder = "@FOLDER@";
    for (std::size_t at = 0; (at = text.find(kFolder, at)) != std::string::npos;) {
      text.replace(at, kFolder.size(), folder_.string());
    }
    std::ofstream(descriptor_, std::ios::binary) << text;
    for (const char* const name : {"f0.korvaneFileMapping", "f1.korvaneFileMapping"}) {
      if (!fs::exists(folder_ / name)) {
        std::ofstream(folder_ / name).flush();
        fs::resize_file(folder_ / name, kFileBytes);
      }
    }
  }

 private:
  fs::path folder_;
  fs::path descriptor_;
};

void use(TileImageHandle* image) {
  std::vector<std::uint8_t> row(KvTileImage_GetRowScanlineSuitableBytes(image));
  if (row.empty() || row.size() > kMostRowBytes) {
    return;
  }
  const std::uint32_t lastRow = KvTileImage_GetHeight(image) - 1;
  for (const std::uint32_t y : {std::uint32_t{0}, lastRow / 2, lastRow}) {
    KvTileImage_GetFullRowData(image, y, row.data(), row.size());
    KvTileImage_SetFullRowData(image, y, row.data(), row.size());
  }
  std::vector<std::uint8_t> column(KvTileImage_GetColScanlineSuitableBytes(image));
  if (column.size() <= kMostRowBytes) {
    KvTileImage_SetFullColData(image, KvTileImage_GetWidth(image) - 1, column.data(), column.size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Sandbox sandbox;
  sandbox.prepare(std::string(reinterpret_cast<const char*>(data), size));
  std::array<std::uint32_t, 5> info{};
  KvTileImage_InterprocessB_GetInfo(kIdentifier, &info[0], &info[1], &info[2], &info[3], &info[4]);
  interprocess::InterprocessTileImageInfo whole;
  if (interprocess::TileImageInterprocessJsonHelper(platform::fromUtf8(kIdentifier)).unserialize(whole, false)) {
    for (std::uint64_t file = 0; file <= whole.interprocessFileMappingInfo->fileBriefInfoList.size(); ++file) {
      whole.interprocessFileMappingInfo->getFileDetaiInfo(file);
    }
  }
  TileImageHandle* const image = KvTileImage_InterprocessB_Alloc(kIdentifier);
  if (image != nullptr) {
    use(image);
  }
  KvTileImage_Unload(image);
  return 0;
}
