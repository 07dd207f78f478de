#include "writer.h"

#include "png_writer.h"
#include "tiff_writer.h"

namespace kvtile {

std::unique_ptr<Writer> beginPicture(FileFormat format, File& file, const std::string& path, const Picture& picture,
                                     Console& console) {
  if (format == FileFormat::Png) {
    return std::make_unique<PngWriter>(file, path, picture, console);
  }
  return std::make_unique<TiffWriter>(file, path, picture, console);
}

}  // namespace kvtile
