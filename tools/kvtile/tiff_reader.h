// Reads the first picture of a TIFF file.
#ifndef KVTILE_TIFF_READER_H
#define KVTILE_TIFF_READER_H

#include <memory>
#include <string>
#include <vector>

#include "reader.h"
#include "tiff_handle.h"

namespace kvtile {

class TiffReader : public Reader {
 public:
  TiffReader(const std::string& path, File file, Console& console);

  const Picture& picture() const override { return picture_; }
  std::vector<Fact> facts() override;
  std::uint64_t pages() override;
  void checkReadable() override;
  void read(Image& image, bool widen, Progress& progress) override;

 private:
  // Rows of one plane as they leave the file, on their way into the image.
  class RowSink;

  void readHeader();
  void readColours();
  void readDetails();

  void checkMeaning() const;
  void checkCompression() const;
  void checkSizes() const;
  void checkStoredBytes() const;

  void readStrips(RowSink& sink, std::uint16_t plane, Progress& progress);
  void readPlainStrips(RowSink& sink, std::uint16_t plane, Progress& progress);
  void readTiles(RowSink& sink, std::uint16_t plane, Progress& progress);
  void toMachineOrder(std::span<std::uint8_t> bytes) const;

  bool tiled() const { return TIFFIsTiled(tiff_.get()) != 0; }
  bool separatePlanes() const { return planar_ == PLANARCONFIG_SEPARATE && picture_.pixels.samples > 1; }
  [[noreturn]] void failReading() const;

  std::string path_;
  File file_;
  std::uint64_t fileBytes_;
  TiffHandle tiff_;
  Picture picture_;
  Photometric storedPhotometric_ = Photometric::BlackIsZero;  // before decoding, which can make RGB of it
  std::uint16_t planar_ = PLANARCONFIG_CONTIG;
  std::uint16_t fillOrder_ = FILLORDER_MSB2LSB;
};

}  // namespace kvtile

#endif
