#include "sharing.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <vector>

#include "checks.h"
#include "conversion.h"
#include "description.h"
#include "errors.h"
#include "library_messages.h"
#include "output_file.h"
#include "progress.h"
#include "reader.h"
#include "samples.h"
#include "shared_images.h"
#include "system.h"
#include "text.h"
#include "writer.h"

namespace kvtile {
namespace {

std::string describeSize(const Picture& picture) {
  return std::to_string(picture.width) + " x " + std::to_string(picture.height);
}

// "640 x 480 pixels, 3 x 8 bits, unsigned".
std::string describeFormat(const Picture& picture) {
  return describeSize(picture) + " pixels, " + describeSamples(picture.pixels);
}

bool sameFormat(const Picture& a, const Picture& b) {
  return a.width == b.width && a.height == b.height && a.pixels == b.pixels;
}

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  requirePrinted();
}

// ---- share

// What becomes of the stored picture on its way into the shared image.
struct SharingPlan {
  Turn turn;
  Picture held;     // as it is read
  Picture upright;  // turned
  Delivery delivery;

  // Whether pixels are shared as they are read.
  bool isDirect() const {
    return turn.isIdentity() && !delivery.expandPalette && !delivery.invert && !delivery.straighten;
  }
};

// Throws a Failure for all that can be known to fail before the work starts.
SharingPlan makePlan(const ShareRequest& request, Reader& reader, const Storage& storage) {
  reader.checkReadable();
  const Picture& stored = reader.picture();
  if (request.widenTo8Bit) {
    requireWidenable(request.input, stored);
  }
  SharingPlan plan;
  plan.turn = Turn::uprightFrom(stored.orientation);
  plan.held = request.widenTo8Bit ? stored.widenedTo8Bit() : stored;
  plan.upright = plan.held.turned(plan.turn);
  requireTurnable(request.input, plan.held.pixels, plan.turn);
  plan.delivery = planSharing(plan.upright);
  if (!plan.isDirect()) {
    storage.require(request.input, plan.held, !plan.turn.isIdentity());
  }
  return plan;
}

// Throws a Failure if processes hold an image of the identifier, unless its pixels may be and can be replaced. What is
// left of an image that nobody holds is free to be replaced.
void requireFree(const ShareRequest& request, const Picture& wanted) {
  const Holding holding = SharingFiles().holdings({request.identifier}).front();
  if (holding == Holding::NotHeld || holding == Holding::NoLockFile) {
    return;
  }
  const auto present = sharedPicture(request.identifier);
  if (!present) {
    throw Failure(request.identifier, "is in use by another process, and its descriptor cannot be read",
                  "choose another identifier");
  }
  const std::string shared = "is shared already (" + describeFormat(*present) + ")";
  if (!sameFormat(*present, wanted)) {
    throw Failure(request.identifier, shared + " by a process that still holds it",
                  "choose another identifier, or end that process first");
  }
  if (!request.force) {
    throw Failure(request.identifier, shared,
                  "choose another identifier, or give --force to replace the pixels for all who hold it");
  }
}

void fill(Image& shared, Image& image, const SharingPlan& plan, Progress& progress) {
  RowConverter converter(plan.upright, plan.delivery);
  std::vector<std::uint8_t> row(plan.upright.rowBytes());
  progress.begin("sharing", plan.upright.height);
  for (std::uint32_t y = 0; y < plan.upright.height; ++y) {
    image.getRow(y, 0, plan.upright.width, row);
    shared.setRow(y, 0, plan.upright.width, converter.convert(row));
    progress.advance();
  }
}

void readInto(Image& shared, Reader& reader, const ShareRequest& request, const SharingPlan& plan,
              const Storage& storage, LibraryMessages& messages, Console& console) {
  Progress progress(console);
  if (plan.isDirect()) {
    reader.read(shared, request.widenTo8Bit, progress);
  } else {
    Image image(request.input, plan.held, storage, messages);
    reader.read(image, request.widenTo8Bit, progress);
    if (!plan.turn.isIdentity()) {
      image.turn(plan.turn, plan.upright, progress);
    }
    fill(shared, image, plan, progress);
  }
  // While it is held nothing of it has to be in memory.
  shared.endThread();
}

// How the user ends it.
std::string describeEnd(const ShareRequest& request) {
  if (request.untilStopped) {
    return "until process " + std::to_string(system::processId()) + " is ended";
  }
  return system::stdinIsTerminal() ? "until you press Enter" : "until a line or the end of standard input";
}

std::string describeSharing(const ShareRequest& request, const Picture& shared) {
  std::string line = asUtf8(request.input) + " is shared as " + asUtf8(shellWord(request.identifier)) + " (";
  line += describeFormat(shared) + ") " + describeEnd(request);
  line += "; get it with: kvtile attach " + asUtf8(shellWord(request.identifier)) + " OUT\n";
  return line;
}

void hold(const ShareRequest& request, Console& console) {
  const system::Input input = system::waitForInput(!request.untilStopped);
  if (input == system::Input::End && !system::stdinIsTerminal()) {
    console.note(request.identifier + ": standard input has ended, and the sharing with it; in scripts and in the " +
                 "background give --until-stopped");
  }
}

// ---- attach

// Throws a Failure unless there is an image to attach to.
Picture requireShared(const std::string& identifier) {
  const auto picture = sharedPicture(identifier);
  if (picture) {
    return *picture;
  }
  const SharingFiles files;
  if (files.hasDescriptor(identifier)) {
    throw Failure(identifier,
                  "what is shared cannot be told from its descriptor (" + files.descriptor(identifier) + ")",
                  "share it again");
  }
  throw Failure(identifier, "no image is shared under this identifier", "'kvtile shared' lists those that are");
}

// Throws a Failure for samples that no file can hold.
void requireStorable(const std::string& identifier, const PixelFormat& format) {
  constexpr std::array<std::uint32_t, 8> kDepths = {1, 2, 4, 8, 16, 24, 32, 64};
  constexpr std::uint32_t kMostSamples = 0xFFFF;
  if (std::find(kDepths.begin(), kDepths.end(), format.bits) == kDepths.end() || format.samples > kMostSamples) {
    throw Failure(identifier, "its samples (" + describeSamples(format) + ") fit neither PNG nor TIFF",
                  "have it shared with 8 or 16 bits");
  }
}

Image attachTo(const std::string& identifier, const Picture& expected, LibraryMessages& messages) {
  const Holding before = SharingFiles().holdings({identifier}).front();
  try {
    Image image = Image::attach(identifier, messages);
    if (image.width() == expected.width && image.height() == expected.height && image.pixels() == expected.pixels) {
      return image;
    }
  } catch (const Failure&) {
    if (before == Holding::Held || SharingFiles().hasDescriptor(identifier)) {
      throw;
    }
    throw Failure(identifier, "was left by a process that is gone, and has been removed now", "share it again");
  }
  throw Failure(identifier, "another image has been shared under this identifier meanwhile", "run the command again");
}

// Rows of the shared image as a picture of `held`'s format has them.
void write(Image& image, const Picture& shared, const Picture& held, const Delivery& delivery, Writer& writer,
           Progress& progress) {
  const bool widens = !(shared.pixels == held.pixels);
  std::vector<std::uint8_t> row(shared.rowBytes());
  std::vector<std::uint8_t> widened(widens ? held.rowBytes() : 0);
  RowConverter converter(held, delivery);
  progress.begin("writing", held.height);
  for (std::uint32_t y = 0; y < held.height; ++y) {
    image.getRow(y, 0, shared.width, row);
    if (widens) {
      widen(row, shared.pixels.bits, widenedScale(shared.pixels.bits), widened.size(), widened);
    }
    writer.writeRow(converter.convert(widens ? widened : row));
    progress.advance();
  }
  writer.finish();
  Progress::check();
}

// ---- shared

using TableRow = std::array<std::string, 4>;

std::string describeHolding(Holding holding) {
  switch (holding) {
    case Holding::Held:
      return "held";
    case Holding::NotHeld:
      return "not held";
    case Holding::NoLockFile:
      return "not held, its lock file is missing";
    case Holding::Unknown:
      break;
  }
  return "its lock file cannot be looked at";
}

TableRow describeShared(const std::string& identifier, Holding holding) {
  const auto picture = sharedPicture(identifier);
  TableRow row = {asUtf8(identifier), "?", "?", describeHolding(holding)};
  if (picture) {
    row[1] = describeSize(*picture);
    row[2] = describeSamples(picture->pixels);
  } else {
    row[3] += ", its descriptor cannot be read";
  }
  return row;
}

// Columns as wide as what is in them, two blanks apart.
std::string layOut(const std::vector<TableRow>& rows) {
  std::array<std::size_t, 4> widths = {};
  for (const TableRow& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], characters(row[i]));
    }
  }
  std::string text;
  for (const TableRow& row : rows) {
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
      text += row[i];
      text.append(widths[i] - characters(row[i]) + 2, ' ');
    }
    text += row.back() + "\n";
  }
  return text;
}

}  // namespace

void sharePicture(const ShareRequest& request, Console& console) {
  requireIdentifier(request.identifier);
  LibraryMessages messages(console);
  const Storage storage(request.budget, request.placement);
  std::unique_ptr<Reader> reader = openPicture(request.input, console);
  const SharingPlan plan = makePlan(request, *reader, storage);
  requireFree(request, plan.delivery.picture);
  tellOfOtherPages(*reader, request.input, console);
  for (const std::string& note : plan.delivery.notes) {
    console.note(request.input + ": " + note);
  }

  Image shared = Image::share(request.identifier, plan.delivery.picture, messages);
  readInto(shared, *reader, request, plan, storage, messages, console);
  reader.reset();
  console.showNotes();
  print(describeSharing(request, plan.delivery.picture));
  hold(request, console);
  console.showNotes();
}

void attachPicture(const AttachRequest& request, Console& console) {
  requireIdentifier(request.identifier);
  const FileFormat format = requireKnownExtension(request.output);
  LibraryMessages messages(console);
  OutputFile::check(request.output, "", request.force);
  const Picture shared = requireShared(request.identifier);
  requireStorable(request.identifier, shared.pixels);
  const Picture held = request.widenTo8Bit ? shared.widenedTo8Bit() : shared;
  const Delivery delivery = planDelivery(held, format, request.output);
  for (const std::string& note : delivery.notes) {
    console.note(request.output + ": " + note);
  }

  // All that can fail comes before the image is held: if nobody else holds it, it goes when it is let go of.
  OutputFile output(request.output, request.force);
  const auto writer = beginPicture(format, output.file(), request.output, delivery.picture, console);
  {
    Image image = attachTo(request.identifier, shared, messages);
    Progress progress(console);
    write(image, shared, held, delivery, *writer, progress);
    output.commit();
  }
  if (!SharingFiles().hasDescriptor(request.identifier)) {
    console.note(request.identifier + ": no other process held it any more, so that it is gone now");
  }
  console.showNotes();
}

void listShared(Console& console) {
  const LibraryMessages messages(console);
  const SharingFiles files;
  const std::vector<std::string> identifiers = files.identifiers();
  if (identifiers.empty()) {
    print("nothing is shared\n");
    return;
  }
  const std::vector<Holding> holdings = files.holdings(identifiers);
  std::vector<TableRow> rows = {{"IDENTIFIER", "PIXELS", "SAMPLES", "STATE"}};
  for (std::size_t i = 0; i < identifiers.size(); ++i) {
    rows.push_back(describeShared(identifiers[i], holdings[i]));
  }
  print(layOut(rows));
}

}  // namespace kvtile
