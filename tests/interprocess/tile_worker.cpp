// A program that does with the library what a test tells it. It says "ready", reads commands from stdin, one a line,
// and answers each with one line on stdout; it ends when there are no more. What the library logs comes as further
// lines, "log SEVERITY MESSAGE", before the answer. Images have one sample of 8 bits, whose value follows from its
// place and a seed.
//
//   make NAME WIDTH HEIGHT heap|files     made, or null
//   share NAME ID WIDTH HEIGHT            made, or null: a shared image
//   attach NAME ID                        attached, or null
//   probe ID                              valid or invalid
//   info ID                               "WIDTH x HEIGHT", or unknown
//   write NAME SEED                       written, or failed: row by row
//   write-columns NAME SEED               the same, column by column
//   set NAME X Y VALUE                    set, or failed: a pixel
//   get NAME X Y                          its value, or failed
//   read NAME SEED                        same, different or failed: whether the pixels are what `write` wrote
//   write-on NAME                         writing; then it writes without end
//   unload NAME                           unloaded
//   stress SEED ROUNDS PREFIX SLOT SLOTS  that many rounds with the images PREFIX0 to PREFIX3 that SLOTS processes
//   share:
//                                         "round NUMBER" after each, then "finished", or "wrong WHAT"
//   threads COUNT                         that many threads make, write, read and unload an image each at the same
//                                         time; the number of those that succeeded
//   exit CODE                             no answer: ends with its images as they are
#include "tile_worker.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <latch>
#include <sstream>
#include <thread>
#include <vector>

#include "ember_logger/ember_logger.h"

namespace tile_worker {
namespace {

using Line = std::vector<std::uint8_t>;

std::uint8_t pixelAt(std::uint32_t x, std::uint32_t y, std::uint32_t seed) {
  const std::uint32_t mixed = (x * 2654435761U) ^ (y * 2246822519U) ^ (seed * 3266489917U);
  return static_cast<std::uint8_t>(mixed >> 24 ^ mixed >> 8);
}

Line expectedRow(std::uint32_t y, std::uint32_t width, std::uint32_t seed) {
  Line row(width);
  for (std::uint32_t x = 0; x < width; ++x) {
    row[x] = pixelAt(x, y, seed);
  }
  return row;
}

Line expectedColumn(std::uint32_t x, std::uint32_t height, std::uint32_t seed) {
  Line column(height);
  for (std::uint32_t y = 0; y < height; ++y) {
    column[y] = pixelAt(x, y, seed);
  }
  return column;
}

TileImageHandle* make(std::uint32_t width, std::uint32_t height, bool inFiles) {
  return KvTileImage_Alloc(width, height, 1, 8, KVTI_SAMPLEFORMAT_UINT, inFiles ? 1 : 0);
}

bool writeRows(TileImageHandle* image, std::uint32_t seed) {
  const std::uint32_t width = KvTileImage_GetWidth(image);
  const std::uint32_t height = KvTileImage_GetHeight(image);
  for (std::uint32_t y = 0; y < height; ++y) {
    const Line row = expectedRow(y, width, seed);
    if (!KvTileImage_SetFullRowData(image, y, row.data(), row.size())) {
      return false;
    }
  }
  return height > 0;
}

bool writeColumns(TileImageHandle* image, std::uint32_t seed) {
  const std::uint32_t width = KvTileImage_GetWidth(image);
  const std::uint32_t height = KvTileImage_GetHeight(image);
  for (std::uint32_t x = 0; x < width; ++x) {
    const Line column = expectedColumn(x, height, seed);
    if (!KvTileImage_SetFullColData(image, x, column.data(), column.size())) {
      return false;
    }
  }
  return width > 0;
}

std::string readRows(TileImageHandle* image, std::uint32_t seed) {
  const std::uint32_t width = KvTileImage_GetWidth(image);
  const std::uint32_t height = KvTileImage_GetHeight(image);
  Line row(width);
  for (std::uint32_t y = 0; y < height; ++y) {
    if (!KvTileImage_GetFullRowData(image, y, row.data(), row.size())) {
      return "failed";
    }
    if (row != expectedRow(y, width, seed)) {
      return "different";
    }
  }
  return height > 0 ? "same" : "failed";
}

unsigned succeedingThreads(unsigned count) {
  std::latch start(count);
  std::atomic<unsigned> succeeded{0};
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      TileImageHandle* const image = make(8, 8192, true);
      if (image != nullptr && writeRows(image, i) && readRows(image, i) == "same") {
        ++succeeded;
      }
      KvTileImage_Unload(image);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return succeeded;
}

TileImageHandle* imageNamedIn(std::istream& words) {
  std::string name;
  words >> name;
  return images()[name];
}

std::uint32_t numberIn(std::istream& words) {
  std::uint32_t number = 0;
  words >> number;
  return number;
}

std::string makeImage(std::istream& words) {
  std::string name;
  std::string storage;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  words >> name >> width >> height >> storage;
  images()[name] = make(width, height, storage == "files");
  return images()[name] != nullptr ? "made" : "null";
}

std::string shareImage(std::istream& words) {
  std::string name;
  std::string identifier;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  words >> name >> identifier >> width >> height;
  images()[name] = KvTileImage_InterprocessA_Alloc(identifier.c_str(), width, height, 1, 8, KVTI_SAMPLEFORMAT_UINT);
  return images()[name] != nullptr ? "made" : "null";
}

std::string attachToImage(std::istream& words) {
  std::string name;
  std::string identifier;
  words >> name >> identifier;
  images()[name] = KvTileImage_InterprocessB_Alloc(identifier.c_str());
  return images()[name] != nullptr ? "attached" : "null";
}

std::string probe(std::istream& words) {
  std::string identifier;
  words >> identifier;
  return KvTileImage_Interprocess_IsValid(identifier.c_str()) ? "valid" : "invalid";
}

std::string info(std::istream& words) {
  std::string identifier;
  words >> identifier;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  if (!KvTileImage_InterprocessB_GetInfo(identifier.c_str(), &width, &height, nullptr, nullptr, nullptr)) {
    return "unknown";
  }
  return std::to_string(width) + " x " + std::to_string(height);
}

std::string setPixel(std::istream& words) {
  TileImageHandle* const image = imageNamedIn(words);
  const std::uint32_t x = numberIn(words);
  const std::uint32_t y = numberIn(words);
  const auto value = static_cast<std::uint8_t>(numberIn(words));
  return KvTileImage_SetPixelData(image, x, y, &value, 1) ? "set" : "failed";
}

std::string getPixel(std::istream& words) {
  TileImageHandle* const image = imageNamedIn(words);
  const std::uint32_t x = numberIn(words);
  const std::uint32_t y = numberIn(words);
  std::uint8_t value = 0;
  return KvTileImage_GetPixelData(image, x, y, &value, 1) ? std::to_string(value) : "failed";
}

std::string writeOn(std::istream& words) {
  TileImageHandle* const image = imageNamedIn(words);
  say("writing");
  for (std::uint32_t seed = 0; writeRows(image, seed);) {
    ++seed;
  }
  return "failed";
}

std::string unload(std::istream& words) {
  std::string name;
  words >> name;
  KvTileImage_Unload(images()[name]);
  images().erase(name);
  return "unloaded";
}

// Each is given the words behind its name.
using Command = std::string (*)(std::istream& words);

const std::map<std::string, Command> kCommands{
    {"make", makeImage},
    {"share", shareImage},
    {"attach", attachToImage},
    {"probe", probe},
    {"info", info},
    {"set", setPixel},
    {"get", getPixel},
    {"stress", stress},
    {"write",
     [](std::istream& words) -> std::string {
       TileImageHandle* const image = imageNamedIn(words);
       return writeRows(image, numberIn(words)) ? "written" : "failed";
     }},
    {"write-columns",
     [](std::istream& words) -> std::string {
       TileImageHandle* const image = imageNamedIn(words);
       return writeColumns(image, numberIn(words)) ? "written" : "failed";
     }},
    {"read",
     [](std::istream& words) {
       TileImageHandle* const image = imageNamedIn(words);
       return readRows(image, numberIn(words));
     }},
    {"write-on", writeOn},
    {"unload", unload},
    {"threads", [](std::istream& words) { return std::to_string(succeedingThreads(numberIn(words))); }},
    {"exit", [](std::istream& words) -> std::string { std::exit(static_cast<int>(numberIn(words))); }},
};

void sayLogged(int severity, const char*, const char* message, void*) {
  say("log " + std::to_string(severity) + ' ' + message);
}

}  // namespace

std::map<std::string, TileImageHandle*>& images() {
  static auto& named = *new std::map<std::string, TileImageHandle*>;
  return named;
}

void say(const std::string& line) {
  const std::string text = line + '\n';
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

std::string answerTo(const std::string& command) {
  std::istringstream words(command);
  std::string name;
  words >> name;
  const auto found = kCommands.find(name);
  return found != kCommands.end() ? found->second(words) : systemAnswerTo(name, words);
}

}  // namespace tile_worker

int main() {
  EmberLogger_SetLevel(ember_logger::trace);
  EmberLogger_SetSink(tile_worker::sayLogged, nullptr);
  tile_worker::say("ready");
  for (std::string command; std::getline(std::cin, command);) {
    if (command.ends_with('\r')) {
      command.pop_back();
    }
    tile_worker::say(tile_worker::answerTo(command));
  }
  return 0;
}
