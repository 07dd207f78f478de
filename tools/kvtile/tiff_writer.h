// Writes TIFF files: strips, in the machine's byte order, classic where the result surely fits and BigTIFF otherwise.
#ifndef KVTILE_TIFF_WRITER_H
#define KVTILE_TIFF_WRITER_H

#include <string>
#include <vector>

#include "tiff_handle.h"
#include "writer.h"

namespace kvtile {

// How the pixels are stored.
struct TiffCoding {
  std::uint16_t compression = 1;
  std::uint16_t predictor = 1;
  std::uint32_t group3Options = 0;
  bool operator==(const TiffCoding&) const = default;
};

// The source's compression where it is lossless and can be written for this picture, else deflate with the predictor
// that suits the samples.
TiffCoding chooseCoding(const Picture& picture);

// The rows of a strip: about 256 KiB of pixels, at least one row.
std::uint32_t chooseRowsPerStrip(const Picture& picture);

// What the file can grow to at most, whatever the pixels are. Saturates at the largest number.
std::uint64_t worstCaseBytes(const Picture& picture, const TiffCoding& coding);

// Whether a file of this size bound can have positions that classic TIFF's 32 bits do not reach.
bool needsBigTiff(std::uint64_t worstCaseBytes);

class TiffWriter : public Writer {
 public:
  TiffWriter(File& file, const std::string& path, const Picture& picture, Console& console);

  void writeRow(std::span<std::uint8_t> row) override;
  void finish() override;

 private:
  void setHeader(const Picture& picture, const TiffCoding& coding);
  void setColours(const Picture& picture);
  void setInks(const Picture& picture);
  void setMeasures(const Picture& picture);
  void writeStrip();
  [[noreturn]] void fail() const;

  template <typename... Values>
  void set(std::uint32_t tag, Values... values) {
    if (TIFFSetField(tiff_.get(), tag, values...) == 0) {
      fail();
    }
  }

  std::string path_;
  File& file_;
  TiffHandle tiff_;
  std::uint32_t height_;
  std::uint32_t rowsPerStrip_;
  std::uint32_t rowsTaken_ = 0;
  std::vector<std::uint8_t> strip_;  // the rows of the strip that is not written yet
};

}  // namespace kvtile

#endif
