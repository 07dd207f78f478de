#include "checks.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "description.h"
#include "errors.h"

namespace kvtile {

FileFormat requireKnownExtension(const std::string& output) {
  const auto format = formatByExtension(output);
  if (!format) {
    throw WrongUsage(output, "its extension tells no format", "end the name in .png, .tif or .tiff");
  }
  return *format;
}

void requireWidenable(const std::string& input, const Picture& picture) {
  if (!picture.pixels.packed()) {
    return;
  }
  const bool numbers = picture.pixels.sampleFormat == SampleFormat::Unsigned;
  if (!numbers || (picture.photometric == Photometric::Palette && picture.pixels.samples > 1)) {
    throw Failure(input, "its samples (" + describeSamples(picture.pixels) + ") cannot be widened to 8 bits",
                  "run again without --to-8bit");
  }
}

void requireTurnable(const std::string& input, const PixelFormat& format, const Turn& turn) {
  const bool wholePixelsOffBytes =
      format.packed() && format.bitsPerPixel() >= 8 && format.bitsPerPixel() % 8 != 0 && turn.swapsSides();
  if (format.bits == 2 && turn.reversesRows()) {
    throw Failure(input, "rows of 2-bit samples cannot be reversed without altering them",
                  "run again with --to-8bit to widen them");
  }
  if (wholePixelsOffBytes) {
    throw Failure(input,
                  "pixels of " + std::to_string(format.samples) + " x " + std::to_string(format.bits) +
                      " bits do not start on whole bytes and cannot be turned sideways",
                  "run again with --to-8bit to widen them");
  }
}

void tellOfOtherPages(Reader& reader, const std::string& input, Console& console) {
  const std::uint64_t pages = reader.pages();
  if (pages > 1) {
    console.note(input + " has " + std::to_string(pages) + " pages; only the first is read");
  }
}

void requirePrinted() {
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw Failure("standard output", std::string("cannot be written (") + std::strerror(errno) + ")",
                  "check where it leads to");
  }
}

}  // namespace kvtile
