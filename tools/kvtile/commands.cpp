#include "commands.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <optional>

#include "chart.h"
#include "checks.h"
#include "conversion.h"
#include "description.h"
#include "errors.h"
#include "histogram.h"
#include "image.h"
#include "library_messages.h"
#include "output_file.h"
#include "progress.h"
#include "reader.h"
#include "resizing.h"
#include "result_rows.h"
#include "system.h"
#include "toning.h"
#include "writer.h"

namespace kvtile {
namespace {

// Throws a Failure for what can be known to fail of every command before the work starts.
void checkFiles(const Request& request, Reader& reader) {
  OutputFile::check(request.output, request.input, request.force);
  reader.checkReadable();
  if (request.widenTo8Bit) {
    requireWidenable(request.input, reader.picture());
  }
}

// The picture as the image gets it.
Picture heldPicture(const Request& request, const Picture& stored) {
  return request.widenTo8Bit ? stored.widenedTo8Bit() : stored;
}

// What becomes of the stored picture on its way into the output.
struct Plan {
  Turn turn;
  Picture held;     // as the image gets it
  Picture upright;  // turned
  Toning toning;    // nothing to do if no tones change
  Resizing resizing;
  Delivery delivery;
};

// Throws a Failure for all that can be known to fail before the work starts.
Plan makePlan(const TransformRequest& request, FileFormat format, Reader& reader, const Storage& storage,
              LibraryMessages& messages) {
  const Picture& stored = reader.picture();
  checkFiles(request, reader);
  Plan plan;
  plan.turn = Turn::uprightFrom(stored.orientation).then(request.turn);
  plan.held = heldPicture(request, stored);
  plan.upright = plan.held.turned(plan.turn);
  requireTurnable(request.input, plan.held.pixels, plan.turn);
  plan.toning.picture = plan.upright;
  if (request.tone.changes()) {
    plan.toning = planToning(request.input, plan.upright, request.tone, messages);
  }
  plan.resizing = planResizing(request.input, request.output, plan.toning.picture, request.resize);
  plan.delivery = planDelivery(plan.resizing.picture, format, request.output);
  if (plan.resizing.expandsPalette) {
    storage.require(request.input, plan.upright.withoutPalette(), true);
  } else {
    storage.require(request.input, plan.held, !plan.turn.isIdentity());
  }
  return plan;
}

void write(Image& image, const Resizing& resizing, const Delivery& delivery, Writer& writer, Progress& progress) {
  const auto rows = makeResultRows(image, resizing);
  RowConverter converter(resizing.picture, delivery);
  progress.begin("writing", resizing.picture.height);
  for (std::uint32_t y = 0; y < resizing.picture.height; ++y) {
    writer.writeRow(converter.convert(rows->next()));
    progress.advance();
  }
  writer.finish();
  Progress::check();
}

// The library's kernels end after so many pixels.
bool shrinksBeyondWindow(const Resizing& resizing) {
  constexpr std::uint64_t kWindow = 98;
  return resizing.area.width > kWindow * resizing.picture.width ||
         resizing.area.height > kWindow * resizing.picture.height;
}

void tellOfPlan(const TransformRequest& request, const Plan& plan, Console& console) {
  for (const std::string& note : plan.toning.notes) {
    console.note(request.input + ": " + note);
  }
  for (const std::string& note : plan.delivery.notes) {
    console.note(request.output + ": " + note);
  }
  if (plan.delivery.picture.colourKey && plan.resizing.scales) {
    console.note(request.output + ": only pixels that have the transparent colour exactly are transparent");
  }
  const std::vector<Extra>& extras = plan.resizing.picture.extras;
  if (plan.resizing.scales && std::find(extras.begin(), extras.end(), Extra::StraightAlpha) != extras.end()) {
    console.note(request.output + ": colours are blended as they are, those that transparent pixels hide too");
  }
  if (plan.resizing.scales && shrinksBeyondWindow(plan.resizing)) {
    console.note(request.output + ": each pixel is made of the 100 nearest ones in each direction, which are not all " +
                 "that it stands for");
  }
  if (plan.delivery.picture.colourKey && widensColourKey(plan.upright, plan.toning)) {
    console.note(request.output + ": other colours became the transparent one, so that more pixels may be transparent");
  }
}

std::vector<std::uint32_t> chartedChannels(const Request& request, const Picture& held) {
  std::vector<std::uint32_t> channels = chosenChannels(request.input, held, request.tone);
  if (channels.size() > kMostCharted) {
    throw Failure(request.input, "its " + std::to_string(channels.size()) + " channels are too many for one chart",
                  "choose up to " + std::to_string(kMostCharted) + " of them with --channel");
  }
  return channels;
}

// All of the chart but what has to be counted.
ChartSubject describeChart(const Request& request, const Picture& held, LibraryMessages& messages) {
  const Picture upright = held.turned(Turn::uprightFrom(held.orientation));
  ChartSubject subject;
  subject.title = system::nameOf(request.input);
  subject.details = std::to_string(upright.width) + " x " + std::to_string(upright.height) + " pixels, " +
                    describeSamples(held.pixels) + ", " + describeMeaning(held.photometric, held.extras);
  if (request.tone.changes()) {
    subject.curve = ToneCurve::fromSteps(request.tone.steps, toneBits(held), request.input, messages);
    for (const ToneStep& step : request.tone.steps) {
      subject.curveText += (subject.curveText.empty() ? "" : ", ") + describeStep(step);
    }
  }
  return subject;
}

void write(const Chart& chart, Writer& writer) {
  for (std::uint32_t y = 0; y < chart.picture().height; ++y) {
    std::vector<std::uint8_t> row = chart.row(y);
    writer.writeRow(row);
  }
  writer.finish();
  Progress::check();
}

std::string placeName(bool inMemory) { return inMemory ? "memory" : "files"; }

std::string describePlaces(const Storage& storage, const Plan& plan) {
  std::string text = "image kept in " + placeName(storage.keepsInMemory(plan.held));
  if (!plan.turn.isIdentity()) {
    text += ", its turned copy in " + placeName(storage.keepsCopyInMemory(plan.held, plan.upright));
  }
  if (plan.resizing.expandsPalette) {
    const Picture colours = plan.upright.withoutPalette();
    text += ", its copy in colours in " + placeName(storage.keepsCopyInMemory(plan.upright, colours));
  }
  return text;
}

// "stats: image kept in memory, its turned copy in files, peak memory 12.3 MB, 4.5 s".
std::string statsText(const std::string& places, std::chrono::steady_clock::time_point start) {
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
  std::string text = "stats: " + places;
  std::array<char, 80> numbers = {};
  std::snprintf(numbers.data(), numbers.size(), ", peak memory %.1f MB, %.1f s",
                static_cast<double>(system::peakMemoryBytes()) / 1e6, time.count());
  return text + numbers.data();
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
  const auto start = std::chrono::steady_clock::now();
  const FileFormat format = requireKnownExtension(request.output);
  LibraryMessages messages(console);
  const Storage storage(request.budget, request.placement);
  std::unique_ptr<Reader> reader = openPicture(request.input, console);
  const Plan plan = makePlan(request, format, *reader, storage, messages);
  const bool turning = !plan.turn.isIdentity();
  tellOfOtherPages(*reader, request.input, console);
  tellOfPlan(request, plan, console);

  OutputFile output(request.output, request.force);
  Progress progress(console);
  Image image(request.input, plan.held, storage, messages);
  reader->read(image, request.widenTo8Bit, progress);
  reader.reset();
  if (turning) {
    image.turn(plan.turn, plan.upright, progress);
  }
  if (!plan.toning.curves.empty()) {
    image.adjust(plan.toning.curves, progress);
  }
  if (plan.resizing.expandsPalette) {
    image.expandPalette(plan.toning.picture, storage, progress);
  }
  const auto writer = beginPicture(format, output.file(), request.output, plan.delivery.picture, console);
  write(image, plan.resizing, plan.delivery, *writer, progress);
  output.commit();
  console.showNotes();
  if (request.showStats) {
    console.report(statsText(describePlaces(storage, plan), start));
  }
}

void drawHistogram(const Request& request, Console& console) {
  const auto start = std::chrono::steady_clock::now();
  const FileFormat format = requireKnownExtension(request.output);
  LibraryMessages messages(console);
  const Storage storage(request.budget, request.placement);
  std::unique_ptr<Reader> reader = openPicture(request.input, console);
  checkFiles(request, *reader);
  const Picture held = heldPicture(request, reader->picture());
  requireTones(request.input, held);
  requireMeaning(request.input, held, request.tone);
  const std::vector<std::uint32_t> channels = chartedChannels(request, held);
  ChartSubject subject = describeChart(request, held, messages);
  storage.require(request.input, held, false);
  tellOfOtherPages(*reader, request.input, console);

  OutputFile output(request.output, request.force);
  Progress progress(console);
  Image image(request.input, held, storage, messages);
  reader->read(image, request.widenTo8Bit, progress);
  reader.reset();
  subject.histogram = countTones(image, held, channels, progress);
  const Chart chart(subject);
  const auto writer = beginPicture(format, output.file(), request.output, chart.picture(), console);
  write(chart, *writer);
  output.commit();
  console.showNotes();
  if (request.showStats) {
    console.report(statsText("image kept in " + placeName(storage.keepsInMemory(held)), start));
  }
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
  requirePrinted();
  return good;
}

}  // namespace kvtile
