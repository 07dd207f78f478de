#include "reader.h"

#include <array>
#include <cstring>

#include "errors.h"
#include "file.h"
#include "png_reader.h"
#include "tiff_reader.h"

namespace kvtile {
namespace {

constexpr std::array<unsigned char, 8> kPngStart = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr unsigned char kTiffStarts[][4] = {{'I', 'I', 42, 0}, {'M', 'M', 0, 42}, {'I', 'I', 43, 0}, {'M', 'M', 0, 43}};

}  // namespace

std::unique_ptr<Reader> openPicture(const std::string& path, Console& console) {
  File file = File::openForReading(path);
  std::array<unsigned char, 8> start = {};
  const std::size_t got = file.read(start.data(), start.size());
  if (file.error() != 0) {
    throw Failure(path, std::string("cannot be read (") + std::strerror(file.error()) + ")", "check the disk");
  }
  if (got == 0) {
    throw Failure(path, "is empty", "name a PNG or TIFF file");
  }
  file.seek(0, SEEK_SET);
  if (start == kPngStart) {
    return std::make_unique<PngReader>(path, std::move(file), console);
  }
  for (const auto& tiffStart : kTiffStarts) {
    if (std::memcmp(start.data(), tiffStart, sizeof tiffStart) == 0) {
      return std::make_unique<TiffReader>(path, std::move(file), console);
    }
  }
  throw Failure(path, "is neither a PNG nor a TIFF file", "convert it to one of these first");
}

}  // namespace kvtile
