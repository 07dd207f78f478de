// From the picture in memory to the picture in the output file, or to a shared image: what changes so that it keeps its
// meaning.
#ifndef KVTILE_CONVERSION_H
#define KVTILE_CONVERSION_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "picture.h"

namespace kvtile {

// How to write a picture into a format.
struct Delivery {
  Picture picture;                 // as the file describes it, or who attaches takes it
  bool straighten = false;         // colour divided by alpha
  bool invert = false;             // black and white exchanged
  bool expandPalette = false;      // indices replaced by colours and alpha
  std::vector<std::string> notes;  // what the user should know
};

// Plans the way of `held`, a picture in memory, into a file of `format`. Throws a Failure that names `path`, the
// output, if the format cannot hold it.
Delivery planDelivery(const Picture& held, FileFormat format, const std::string& path);

// Plans the way of `held` into a shared image, which knows size and samples only: palettes become colours, black is
// zero and alpha straight, as far as the samples allow it. The notes tell what is lost.
Delivery planSharing(const Picture& held);

// Applies a plan to rows.
class RowConverter {
 public:
  RowConverter(const Picture& held, const Delivery& delivery);

  // The row as it is to be written: `row` itself, changed, or a row of this object's.
  std::span<std::uint8_t> convert(std::span<std::uint8_t> row);

 private:
  const Picture& held_;
  const Delivery& delivery_;
  Palette palette_;  // where it is expanded
  std::vector<std::uint8_t> expanded_;
};

}  // namespace kvtile

#endif
