#include "commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "conversion.h"
#include "description.h"
#include "errors.h"
#include "image.h"
#include "library_messages.h"
#include "output_file.h"
#include "progress.h"
#include "reader.h"
#include "writer.h"

namespace kvtile {
namespace {

FileFormat requireKnownExtension(const std::string& output) {
  const auto format = formatByExtension(output);
  if (!format) {
    throw WrongUsage(output, "its extension tells no format", "end the name in .png, .tif or .tiff");
  }
  return *format;
}

// Widening counts from zero to the highest value, and a palette's numbers have to stay what they are.
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

// Two packed layouts do not come through the library's turning; see KvTileImage_RotateAndMirror.
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

void write(Image& image, const Picture& held, const Delivery& delivery, Writer& writer, Progress& progress) {
  std::vector<std::uint8_t> row(image.rowBytes());
  RowConverter converter(held, delivery);
  progress.begin("writing", image.height());
  for (std::uint32_t y = 0; y < image.height(); ++y) {
    image.getRow(y, 0, image.width(), row);
    writer.writeRow(converter.convert(row));
    progress.advance();
  }
  writer.finish();
  Progress::check();
}

void tellOfOtherPages(Reader& reader, const std::string& input, Console& console) {
  const std::uint64_t pages = reader.pages();
  if (pages > 1) {
    console.note(input + " has " + std::to_string(pages) + " pages; only the first is read");
  }
}

void printFacts(const std::vector<Fact>& facts) {
  constexpr std::size_t kValueColumn = 13;
  for (const auto& [key, value] : facts) {
    std::string line = key + ":";
    line.resize(std::max(line.size() + 1, kValueColumn), ' ');
    line += value + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
  }
}

}  // namespace

void transform(const TransformRequest& request, Console& console) {
  const FileFormat format = requireKnownExtension(request.output);
  LibraryMessages messages(console);
  const Storage storage(request.budget, request.placement);

  std::unique_ptr<Reader> reader = openPicture(request.input, console);
  const Picture stored = reader->picture();
  const Turn turn = Turn::uprightFrom(stored.orientation).then(request.turn);
  OutputFile::check(request.output, request.input, request.force);
  reader->checkReadable();
  if (request.widenTo8Bit) {
    requireWidenable(request.input, stored);
  }
  const Picture held = request.widenTo8Bit ? stored.widenedTo8Bit() : stored;
  const Picture upright = held.turned(turn);
  requireTurnable(request.input, held.pixels, turn);
  const Delivery delivery = planDelivery(upright, format, request.output);
  storage.require(request.input, held, !turn.isIdentity());
  tellOfOtherPages(*reader, request.input, console);
  for (const std::string& note : delivery.notes) {
    console.note(request.output + ": " + note);
  }

  OutputFile output(request.output, request.force);
  Progress progress(console);
  Image image(request.input, held, storage, messages);
  reader->read(image, request.widenTo8Bit, progress);
  reader.reset();
  if (!turn.isIdentity()) {
    image.turn(turn, upright, progress);
  }
  const std::unique_ptr<Writer> writer = beginPicture(format, output.file(), request.output, delivery.picture, console);
  write(image, upright, delivery, *writer, progress);
  output.commit();
  console.showNotes();
}

bool showInfo(const std::vector<std::string>& files, Console& console) {
  bool good = true;
  bool first = true;
  for (const std::string& file : files) {
    try {
      const std::vector<Fact> facts = openPicture(file, console)->facts();
      if (!first) {
        std::fputc('\n', stdout);
      }
      first = false;
      printFacts(facts);
    } catch (const Failure& failure) {
      std::fflush(stdout);
      console.error(failure.what());
      good = false;
    }
    Progress::check();
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw Failure("standard output", std::string("cannot be written (") + std::strerror(errno) + ")",
                  "check where it leads to");
  }
  return good;
}

}  // namespace kvtile
