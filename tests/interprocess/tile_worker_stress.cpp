// What one of several processes does at random with images that all of them share.
//
// A pixel is 0 until it is written, and can only be written with the value that follows from its image and its place.
// So everything that any process reads at any time is 0 or that value; and what a process has written, or has seen
// written, stays as long as it holds the image.
#include <array>
#include <deque>
#include <map>
#include <random>
#include <sstream>
#include <vector>

#include "ember_logger/ember_logger.h"
#include "tile_worker.h"

namespace tile_worker {
namespace {

using Line = std::vector<std::uint8_t>;

constexpr std::uint32_t kImages = 4;

// The sizes of the four: one tile, and several in each direction.
struct Size {
  std::uint32_t width;
  std::uint32_t height;
};
constexpr std::array<Size, kImages> kSizes{{{64, 64}, {16, 12300}, {12300, 16}, {600, 600}}};

// Never 0.
std::uint8_t valueAt(std::uint32_t image, std::uint32_t x, std::uint32_t y) {
  const std::uint32_t mixed = (x * 2654435761U) ^ (y * 2246822519U) ^ ((image + 1) * 3266489917U);
  return static_cast<std::uint8_t>((mixed >> 11) % 255 + 1);
}

// One of the images while this process holds it.
struct Held {
  TileImageHandle* handle = nullptr;
  std::map<std::uint32_t, bool> written;  // rows that are known to have been written since it is held
};

class Rounds {
 public:
  Rounds(std::uint32_t seed, std::string prefix, std::uint32_t slot, std::uint32_t slots)
      : random_(seed), prefix_(std::move(prefix)), slot_(slot), slots_(slots) {}

  ~Rounds() {
    for (Held& held : held_) {
      KvTileImage_Unload(held.handle);
    }
  }

  // What went wrong; empty if nothing did.
  std::string round() {
    const std::uint32_t image = below(kImages);
    Held& held = held_[image];
    if (held.handle == nullptr) {
      return take(image, held);
    }
    switch (below(6)) {
      case 0:
        KvTileImage_Unload(held.handle);
        held = {};
        return {};
      case 1:
        KvTileImage_EndCurrentThreadIO(held.handle);
        return {};
      case 2:
      case 3:
        return write(image, held);
      case 4:
        return readColumn(image, held);
      default:
        return readRow(image, held, below(kSizes[image].height));
    }
  }

 private:
  std::uint32_t below(std::uint32_t end) { return static_cast<std::uint32_t>(random_() % end); }

  // An image may be gone when it is looked for; made, it is there.
  std::string take(std::uint32_t image, Held& held) {
    const std::string identifier = prefix_ + std::to_string(image);
    const Size size = kSizes[image];
    switch (below(4)) {
      case 0:
        held.handle = KvTileImage_InterprocessB_Alloc(identifier.c_str());
        return {};
      case 1:
        KvTileImage_Interprocess_IsValid(identifier.c_str());
        return {};
      default:
        held.handle =
            KvTileImage_InterprocessA_Alloc(identifier.c_str(), size.width, size.height, 1, 8, KVTI_SAMPLEFORMAT_UINT);
        return held.handle != nullptr ? "" : "no image " + identifier;
    }
  }

  // Each process has its rows, so that no two write the same pixels at the same time.
  std::string write(std::uint32_t image, Held& held) {
    const Size size = kSizes[image];
    const std::uint32_t y = below(size.height / slots_) * slots_ + slot_;
    Line row(size.width);
    for (std::uint32_t x = 0; x < size.width; ++x) {
      row[x] = valueAt(image, x, y);
    }
    if (!KvTileImage_SetFullRowData(held.handle, y, row.data(), row.size())) {
      return "a row was not written";
    }
    held.written[y] = true;
    return readRow(image, held, y);
  }

  std::string readRow(std::uint32_t image, Held& held, std::uint32_t y) {
    Line row(kSizes[image].width);
    if (!KvTileImage_GetFullRowData(held.handle, y, row.data(), row.size())) {
      return "a row was not read";
    }
    bool complete = true;
    for (std::uint32_t x = 0; x < row.size(); ++x) {
      complete = complete && row[x] != 0;
      if (row[x] != 0 && row[x] != valueAt(image, x, y)) {
        return pixelText("a pixel that nobody wrote", image, x, y);
      }
    }
    if (!complete && held.written.contains(y)) {
      return pixelText("a row that is lost", image, 0, y);
    }
    if (complete) {
      held.written[y] = true;
    }
    return {};
  }

  std::string readColumn(std::uint32_t image, const Held& held) {
    const Size size = kSizes[image];
    const std::uint32_t x = below(size.width);
    Line column(size.height);
    if (!KvTileImage_GetFullColData(held.handle, x, column.data(), column.size())) {
      return "a column was not read";
    }
    for (std::uint32_t y = 0; y < size.height; ++y) {
      if (column[y] != 0 && column[y] != valueAt(image, x, y)) {
        return pixelText("a pixel that nobody wrote", image, x, y);
      }
      if (column[y] == 0 && held.written.contains(y)) {
        return pixelText("a pixel that is lost", image, x, y);
      }
    }
    return {};
  }

  static std::string pixelText(const char* what, std::uint32_t image, std::uint32_t x, std::uint32_t y) {
    std::ostringstream text;
    text << what << ": image " << image << ", " << x << ", " << y;
    return text.str();
  }

  std::mt19937 random_;
  std::string prefix_;
  std::uint32_t slot_;
  std::uint32_t slots_;
  std::array<Held, kImages> held_;
};

// A process that waits for the test to read what it says would make the others wait that want its turn: messages are
// kept until something goes wrong.
class KeptMessages {
 public:
  KeptMessages() { EmberLogger_SetSink(keep, this); }

  void tell() const {
    for (const std::string& message : messages_) {
      say(message);
    }
  }

 private:
  static constexpr std::size_t kMost = 200;

  static void keep(int severity, const char*, const char* message, void* user) {
    auto& messages = static_cast<KeptMessages*>(user)->messages_;
    std::ostringstream line;
    line << "log " << severity << ' ' << message;
    messages.push_back(line.str());
    if (messages.size() > kMost) {
      messages.pop_front();
    }
  }

  std::deque<std::string> messages_;
};

}  // namespace

std::string stress(std::istream& words) {
  std::uint32_t seed = 0;
  std::uint32_t count = 0;
  std::string prefix;
  std::uint32_t slot = 0;
  std::uint32_t slots = 1;
  words >> seed >> count >> prefix >> slot >> slots;
  static KeptMessages messages;  // as long as the process may log
  Rounds rounds(seed, prefix, slot, slots);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::string wrong = rounds.round();
    if (!wrong.empty()) {
      messages.tell();
      return "wrong " + wrong;
    }
    say("round " + std::to_string(i + 1));
  }
  return "finished";
}

}  // namespace tile_worker
