// Reads PNG files.
#ifndef KVTILE_PNG_READER_H
#define KVTILE_PNG_READER_H

#include <string>
#include <vector>

#include "file.h"
#include "png_handle.h"
#include "reader.h"

namespace kvtile {

class PngReader : public Reader {
 public:
  PngReader(const std::string& path, File file, Console& console);

  const Picture& picture() const override { return picture_; }
  std::vector<Fact> facts() override;
  std::uint64_t pages() override { return 1; }
  void checkReadable() override;
  void read(Image& image, bool widen, Progress& progress) override;

 private:
  // The colour chunks that the file itself has; libpng adds what it can derive from others.
  struct ColourChunks {
    bool gamma = false;
    bool chromaticities = false;
    bool srgb = false;
  };

  ColourChunks scanChunks();
  void readHeader();
  void readColours();
  void readPaletteAndKey();
  void startPixels(bool widen);
  void readRows(Image& image, Progress& progress);
  void readPasses(Image& image, Progress& progress);
  [[noreturn]] void failReading() const;

  bool interlaced() const;

  std::string path_;
  File file_;
  std::uint64_t fileBytes_;
  PngHandle handle_;
  Picture picture_;
};

}  // namespace kvtile

#endif
