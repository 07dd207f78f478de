// Writes PNG files.
#ifndef KVTILE_PNG_WRITER_H
#define KVTILE_PNG_WRITER_H

#include <string>
#include <vector>

#include "png_handle.h"
#include "writer.h"

namespace kvtile {

class PngWriter : public Writer {
 public:
  PngWriter(File& file, const std::string& path, const Picture& picture, Console& console);

  void writeRow(std::span<std::uint8_t> row) override;
  void finish() override;

 private:
  void writeHeader(const Picture& picture);
  void setPalette(const Picture& picture);
  void setColours(const Picture& picture);
  void setColourKey(const Picture& picture);
  [[noreturn]] void fail() const;

  std::string path_;
  File& file_;
  Console& console_;
  PngHandle handle_;
};

}  // namespace kvtile

#endif
