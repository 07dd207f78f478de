// Files that are cut short, damaged or made to harm: one line, status 1, nothing left behind, and no memory or time
// spent on promises.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <ostream>
#include <random>
#include <string>

#include "support/moves.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::pattern;
using support::Png;
using support::pngOf;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Tiff;
using support::tiffOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class DamagedTest : public testing::Test {
 protected:
  // Runs a rotation of `name` that has to fail for the file's sake; its line.
  std::string failure(const std::string& name, const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {"rotate", "90", name, "out.tif"};
    command.insert(command.end(), options.begin(), options.end());
    const auto begin = std::chrono::steady_clock::now();
    const Result result = sandbox_.kvtile(command);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    expectFailure(result, name);
    return result.err;
  }

  void expectFailure(const Result& result, const std::string& name) {
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.status, 1) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_THAT(result.err, StartsWith("kvtile: " + name + ": "));
    EXPECT_THAT(result.err, HasSubstr("; "));
    EXPECT_THAT(sandbox_.names(), testing::Not(testing::Contains(testing::HasSubstr("out"))));
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(result.peakKilobytes, 40 * 1024);
#endif
  }

  // Fails at each of many lengths of the file.
  void expectFailuresWhenCut(const std::string& name) {
    const std::string whole = sandbox_.read(name);
    for (const std::size_t keep : {whole.size() - 1, whole.size() - 20, whole.size() * 9 / 10, whole.size() * 2 / 3,
                                   whole.size() / 2, whole.size() / 4, std::size_t{200}, std::size_t{60},
                                   std::size_t{33}, std::size_t{16}, std::size_t{9}, std::size_t{8}}) {
      SCOPED_TRACE(name + " cut to " + std::to_string(keep) + " of " + std::to_string(whole.size()));
      sandbox_.write("cut", whole.substr(0, keep));
      failure("cut");
    }
  }

  Sandbox sandbox_;
};

TEST_F(DamagedTest, CutPngsFailAtEveryLength) {
  for (const bool interlaced : {false, true}) {
    Png source = pngOf(pattern(90, 70, 3, 8));
    source.interlaced = interlaced;
    support::writePng(sandbox_.path("in.png"), source);
    expectFailuresWhenCut("in.png");
  }
}

TEST_F(DamagedTest, CutTiffsFailAtEveryLength) {
  for (const std::uint16_t compression :
       std::initializer_list<std::uint16_t>{COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE}) {
    for (const bool tiled : {false, true}) {
      Tiff source = tiffOf(pattern(90, 70, 3, 8));
      source.compression = compression;
      source.tileWidth = tiled ? 32 : 0;
      source.tileHeight = 32;
      support::writeTiff(sandbox_.path("in.tif"), source);
      expectFailuresWhenCut("in.tif");
    }
  }
}

TEST_F(DamagedTest, AFailureIsOneLineEvenWhereThereWasSomethingToNote) {
  Tiff source = tiffOf(pattern(90, 70, 3, 8));
  source.compression = COMPRESSION_ADOBE_DEFLATE;
  source.pages = 2;
  support::writeTiff(sandbox_.path("in.tif"), source);
  std::string file = sandbox_.read("in.tif");
  file.replace(2000, 20, 20, 'x');
  sandbox_.write("in.tif", file);
  EXPECT_THAT(failure("in.tif"), testing::Not(HasSubstr("pages")));
}

// A TIFF with its directory first, so that a cut takes pixels away.
struct Entry {
  std::uint16_t tag;
  std::uint16_t type;
  std::uint32_t count;
  std::uint32_t value;
};

std::string bytesOf(std::uint64_t value, int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i) {
    bytes += static_cast<char>(value >> (8 * i));
  }
  return bytes;
}

std::string handmadeTiff(const std::vector<Entry>& entries, const std::string& rest = "") {
  std::string file = std::string("II*\0", 4) + bytesOf(8, 4) + bytesOf(entries.size(), 2);
  for (const Entry& entry : entries) {
    file += bytesOf(entry.tag, 2) + bytesOf(entry.type, 2) + bytesOf(entry.count, 4) + bytesOf(entry.value, 4);
  }
  return file + bytesOf(0, 4) + rest;
}

// Grey, 8 bits; one strip behind the directory unless `layout` says otherwise.
std::vector<Entry> greyEntries(std::uint32_t width, std::uint32_t height, std::vector<Entry> layout) {
  std::vector<Entry> entries = {{TIFFTAG_IMAGEWIDTH, 4, 1, width},
                                {TIFFTAG_IMAGELENGTH, 4, 1, height},
                                {TIFFTAG_BITSPERSAMPLE, 3, 1, 8},
                                {TIFFTAG_COMPRESSION, 3, 1, 1},
                                {TIFFTAG_PHOTOMETRIC, 3, 1, 1}};
  entries.insert(entries.end(), layout.begin(), layout.end());
  std::stable_sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.tag < b.tag; });
  return entries;
}

TEST_F(DamagedTest, UncompressedPixelsThatEndEarlyFail) {
  const std::uint32_t start = 8 + 2 + 8 * 12 + 4;
  const auto entries = greyEntries(
      100, 50,
      {{TIFFTAG_STRIPOFFSETS, 4, 1, start}, {TIFFTAG_ROWSPERSTRIP, 4, 1, 50}, {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 5000}});
  sandbox_.write("whole.tif", handmadeTiff(entries, std::string(5000, 'x')));
  ASSERT_EQ(sandbox_.kvtile({"convert", "whole.tif", "whole-copy.png"}).status, 0);
  ASSERT_EQ(std::remove(sandbox_.path("whole-copy.png").c_str()), 0);
  for (const std::size_t keep : {4999U, 2500U, 1U, 0U}) {
    sandbox_.write("cut.tif", handmadeTiff(entries, std::string(keep, 'x')));
    EXPECT_THAT(failure("cut.tif"), HasSubstr("the file ends before strip 0 does"));
  }
}

// Of one strip alone libtiff works the size out again.
TEST_F(DamagedTest, StripsThatSayLessThanTheyNeedFail) {
  const std::uint32_t lists = 8 + 2 + 8 * 12 + 4;
  const std::uint32_t start = lists + 16;
  const auto entries = greyEntries(100, 50,
                                   {{TIFFTAG_STRIPOFFSETS, 4, 2, lists},
                                    {TIFFTAG_ROWSPERSTRIP, 4, 1, 25},
                                    {TIFFTAG_STRIPBYTECOUNTS, 4, 2, lists + 8}});
  for (const std::uint32_t second : {2500U, 2400U}) {
    const std::string sizes = bytesOf(start, 4) + bytesOf(start + 2500, 4) + bytesOf(2500, 4) + bytesOf(second, 4);
    sandbox_.write("in.tif", handmadeTiff(entries, sizes + std::string(5000, 'x')));
    if (second == 2500) {
      ASSERT_EQ(sandbox_.kvtile({"convert", "in.tif", "whole.png"}).status, 0) << "the file is right otherwise";
    } else {
      failure("in.tif");
    }
  }
}

// Half of a strip's compressed bytes, in a file that is whole otherwise. Some decoders carry on with invented pixels
// and leave it at a warning.
TEST_F(DamagedTest, StripsWithHalfOfTheirBytesFail) {
  for (const std::uint16_t compression : std::initializer_list<std::uint16_t>{
           COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE, COMPRESSION_PACKBITS, COMPRESSION_JPEG, COMPRESSION_ZSTD,
           COMPRESSION_LZMA, COMPRESSION_WEBP, COMPRESSION_LERC, COMPRESSION_CCITTRLE, COMPRESSION_CCITTFAX3,
           COMPRESSION_CCITTFAX4}) {
    SCOPED_TRACE("compression " + std::to_string(compression));
    if (TIFFIsCODECConfigured(compression) == 0) {
      continue;
    }
    const bool fax = compression == COMPRESSION_CCITTRLE || compression == COMPRESSION_CCITTFAX3 ||
                     compression == COMPRESSION_CCITTFAX4;
    Tiff source = tiffOf(fax ? pattern(200, 100, 1, 1) : pattern(128, 96, 3, 8));
    source.compression = compression;
    source.rowsPerStrip = source.raster.height;
    support::writeTiff(sandbox_.path("whole.tif"), source);
    const Result whole = sandbox_.kvtile({"convert", "--force", "whole.tif", "copy.tif"});
    ASSERT_EQ(whole.status, 0) << whole.err;
    ASSERT_EQ(std::remove(sandbox_.path("copy.tif").c_str()), 0);

    TIFF* in = TIFFOpen(sandbox_.path("whole.tif").c_str(), "r");
    ASSERT_NE(in, nullptr);
    std::vector<std::uint8_t> strip(TIFFGetStrileByteCount(in, 0));
    ASSERT_EQ(TIFFReadRawStrip(in, 0, strip.data(), static_cast<tmsize_t>(strip.size())),
              static_cast<tmsize_t>(strip.size()));
    std::string file = sandbox_.read("whole.tif");
    const std::uint64_t size = strip.size();
    TIFFClose(in);
    // The size stands in the directory, at the end of the file.
    const std::size_t field = file.rfind(bytesOf(TIFFTAG_STRIPBYTECOUNTS, 2) + bytesOf(4, 2) + bytesOf(1, 4));
    const std::size_t shortField = file.rfind(bytesOf(TIFFTAG_STRIPBYTECOUNTS, 2) + bytesOf(3, 2) + bytesOf(1, 4));
    const std::size_t place = (field != std::string::npos ? field : shortField) + 8;
    ASSERT_LT(place, file.size());
    file.replace(place, 4, bytesOf(size / 2, 4));
    sandbox_.write("half.tif", file);
    failure("half.tif");
  }
}

TEST_F(DamagedTest, PromisesOfManyPixelsFailQuickly) {
  sandbox_.write("huge.tif", handmadeTiff(greyEntries(65500, 65500,
                                                      {{TIFFTAG_STRIPOFFSETS, 4, 1, 8},
                                                       {TIFFTAG_ROWSPERSTRIP, 4, 1, 65500},
                                                       {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 100}})));
  failure("huge.tif", {"--budget", "900G"});
  sandbox_.write(
      "strips.tif",
      handmadeTiff(greyEntries(
          65500, 65500,
          {{TIFFTAG_STRIPOFFSETS, 4, 1, 8}, {TIFFTAG_ROWSPERSTRIP, 4, 1, 1}, {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 100}})));
  failure("strips.tif", {"--budget", "900G"});
  // Deflate could make much of its bytes, but not this much.
  auto entries = greyEntries(
      65500, 65500,
      {{TIFFTAG_STRIPOFFSETS, 4, 1, 8}, {TIFFTAG_ROWSPERSTRIP, 4, 1, 65500}, {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 100}});
  entries[3].value = COMPRESSION_ADOBE_DEFLATE;
  sandbox_.write("deflate.tif", handmadeTiff(entries));
  EXPECT_THAT(failure("deflate.tif", {"--budget", "900G"}), HasSubstr("too short for 65500 x 65500 pixels"));
  sandbox_.write("widest.tif",
                 handmadeTiff(greyEntries(0xffffffff, 0xffffffff,
                                          {{TIFFTAG_STRIPOFFSETS, 4, 1, 8}, {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 9}})));
  failure("widest.tif", {"--budget", "900G"});
}

TEST_F(DamagedTest, HugeTilesAndStripSizesFailQuickly) {
  const std::uint32_t start = 8 + 2 + 9 * 12 + 4;
  sandbox_.write("tile.tif", handmadeTiff(greyEntries(100, 100,
                                                      {{TIFFTAG_TILEWIDTH, 4, 1, 65536},
                                                       {TIFFTAG_TILELENGTH, 4, 1, 65536},
                                                       {TIFFTAG_TILEOFFSETS, 4, 1, start},
                                                       {TIFFTAG_TILEBYTECOUNTS, 4, 1, 1000}}),
                                          std::string(1000, 'x')));
  EXPECT_THAT(failure("tile.tif"), HasSubstr("its tiles of 65536 x 65536 pixels cannot be read"));
  sandbox_.write("overflow.tif", handmadeTiff(greyEntries(100, 100,
                                                          {{TIFFTAG_TILEWIDTH, 4, 1, 0xfffffff0},
                                                           {TIFFTAG_TILELENGTH, 4, 1, 0xfffffff0},
                                                           {TIFFTAG_TILEOFFSETS, 4, 1, start},
                                                           {TIFFTAG_TILEBYTECOUNTS, 4, 1, 1000}}),
                                              std::string(1000, 'x')));
  failure("overflow.tif");
  sandbox_.write("count.tif", handmadeTiff(greyEntries(100, 100,
                                                       {{TIFFTAG_STRIPOFFSETS, 4, 1, 8},
                                                        {TIFFTAG_ROWSPERSTRIP, 4, 1, 100},
                                                        {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 0xfffffff0}})));
  failure("count.tif");
  sandbox_.write(
      "rows.tif",
      handmadeTiff(greyEntries(
          100, 100,
          {{TIFFTAG_STRIPOFFSETS, 4, 1, 8}, {TIFFTAG_ROWSPERSTRIP, 4, 1, 0}, {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 100}})));
  failure("rows.tif");
}

TEST_F(DamagedTest, PngHeadersThatPromiseMuchFailQuickly) {
  // A real header of a huge picture, and pixels of a small one.
  support::writePng(sandbox_.path("in.png"), pngOf(pattern(20, 10, 4, 16)));
  std::string file = sandbox_.read("in.png");
  for (const std::string& size : {std::string("\x7f\xff\xff\xff\0\0\0\1", 8), std::string("\0\1\0\0\0\1\0\0", 8)}) {
    file.replace(16, 8, size);
    support::fixChecksum(file, 8);
    sandbox_.write("huge.png", file);
    EXPECT_THAT(failure("huge.png", {"--budget", "900G"}), HasSubstr("too short for"));
  }
}

TEST_F(DamagedTest, UnreadableKindsAreRefusedInWords) {
  Tiff source = tiffOf(pattern(20, 10, 1, 8));
  source.sampleFormat = SAMPLEFORMAT_COMPLEXINT;
  support::writeTiff(sandbox_.path("in.tif"), source);
  EXPECT_THAT(failure("in.tif"), HasSubstr("complex"));
  sandbox_.write("bits.tif", handmadeTiff({{TIFFTAG_IMAGEWIDTH, 4, 1, 10},
                                           {TIFFTAG_IMAGELENGTH, 4, 1, 1},
                                           {TIFFTAG_BITSPERSAMPLE, 3, 1, 12},
                                           {TIFFTAG_COMPRESSION, 3, 1, 1},
                                           {TIFFTAG_PHOTOMETRIC, 3, 1, 1},
                                           {TIFFTAG_STRIPOFFSETS, 4, 1, 8},
                                           {TIFFTAG_ROWSPERSTRIP, 4, 1, 1},
                                           {TIFFTAG_STRIPBYTECOUNTS, 4, 1, 15}}));
  EXPECT_THAT(failure("bits.tif"), HasSubstr("samples of 12 bits cannot be read"));
  for (const auto& [photometric, word] : {std::pair{PHOTOMETRIC_CFA, "colour filter array"},
                                          std::pair{PHOTOMETRIC_LOGL, "LogL"}, std::pair{PHOTOMETRIC_ITULAB, "ITU"}}) {
    source = tiffOf(pattern(20, 10, 1, 8));
    source.photometric = static_cast<std::uint16_t>(photometric);
    support::writeTiff(sandbox_.path("in.tif"), source);
    EXPECT_THAT(failure("in.tif"), HasSubstr(word));
  }
}

// What the files are made of before they are damaged.
struct Seed {
  const char* name;
  std::string (*make)(const Sandbox&);
};

void PrintTo(const Seed& seed, std::ostream* out) { *out << seed.name; }

std::string madeTiff(const Sandbox& sandbox, const Tiff& tiff) {
  support::writeTiff(sandbox.path("seed"), tiff);
  return sandbox.read("seed");
}

std::string madePng(const Sandbox& sandbox, const Png& png) {
  support::writePng(sandbox.path("seed"), png);
  return sandbox.read("seed");
}

const Seed kSeeds[] = {
    {"LzwStrips",
     [](const Sandbox& s) {
       Tiff tiff = tiffOf(pattern(40, 30, 3, 8));
       tiff.compression = COMPRESSION_LZW;
       tiff.predictor = PREDICTOR_HORIZONTAL;
       tiff.icc = std::string(100, 'p');
       return madeTiff(s, tiff);
     }},
    {"DeflateTiles",
     [](const Sandbox& s) {
       Tiff tiff = tiffOf(pattern(40, 30, 4, 16));
       tiff.compression = COMPRESSION_ADOBE_DEFLATE;
       tiff.tileWidth = 16;
       tiff.tileHeight = 16;
       tiff.separate = true;
       return madeTiff(s, tiff);
     }},
    {"BigTiffPlain",
     [](const Sandbox& s) {
       Tiff tiff = tiffOf(pattern(40, 30, 1, 4));
       tiff.bigTiff = true;
       tiff.bigEndian = true;
       tiff.photometric = PHOTOMETRIC_PALETTE;
       tiff.colourMap = support::ColourMap{std::vector<std::uint16_t>(16, 1), std::vector<std::uint16_t>(16, 2),
                                           std::vector<std::uint16_t>(16, 3)};
       return madeTiff(s, tiff);
     }},
    {"Fax",
     [](const Sandbox& s) {
       Tiff tiff = tiffOf(pattern(60, 40, 1, 1));
       tiff.compression = COMPRESSION_CCITTFAX4;
       tiff.orientation = 7;
       return madeTiff(s, tiff);
     }},
    {"Jpeg",
     [](const Sandbox& s) {
       Tiff tiff = tiffOf(pattern(48, 32, 3, 8));
       tiff.compression = COMPRESSION_JPEG;
       tiff.rowsPerStrip = 16;
       return madeTiff(s, tiff);
     }},
    {"Png",
     [](const Sandbox& s) {
       Png png = support::palettePng(pattern(40, 30, 1, 4));
       png.paletteAlpha = {1, 2, 3};
       png.interlaced = true;
       png.gamma = 45455;
       png.physical = support::PngPhysical{1, 2, 1};
       return madePng(s, png);
     }},
};

class MutationTest : public testing::TestWithParam<Seed> {};

// A few bytes of the file at a time, in the header and the directory as often as anywhere.
TEST_P(MutationTest, DamagedFilesNeverDoHarm) {
  constexpr int kFiles = 80;
  constexpr unsigned kSeedNumber = 20240817;
  SCOPED_TRACE("seed " + std::to_string(kSeedNumber));
  const Sandbox sandbox;
  const std::string whole = GetParam().make(sandbox);
  ASSERT_EQ(std::remove(sandbox.path("seed").c_str()), 0);
  std::mt19937 random(kSeedNumber);
  int failures = 0;
  for (int file = 0; file < kFiles; ++file) {
    std::string bytes = whole;
    const std::size_t changes = 1 + random() % 6;
    for (std::size_t change = 0; change < changes; ++change) {
      const std::size_t near = std::min<std::size_t>(bytes.size(), 300);
      const std::size_t places[] = {random() % near, bytes.size() - 1 - random() % near, random() % bytes.size()};
      char& byte = bytes[places[random() % 3]];
      byte = random() % 2 == 0 ? static_cast<char>(random()) : static_cast<char>(byte ^ (1 << random() % 8));
    }
    sandbox.write("in", bytes);
    const Result result = sandbox.kvtile({"rotate", "90", "in", "out.tif"});
    const std::string saved = std::string(testing::TempDir()) + "kvtile-" + GetParam().name + ".damaged";
    const bool known = result.signal == 0 && (result.status == 0 || result.status == 1);
    if (!known) {
      sandbox.run({"cp", "in", saved});
    }
    ASSERT_TRUE(known) << "file " << file << " gave status " << result.status << " and signal " << result.signal
                       << "; kept as " << saved << "\n"
                       << result.err;
    if (result.status == 0) {
      ASSERT_THAT(sandbox.names(), ElementsAre("in", "out.tif"));
      ASSERT_NO_THROW(support::readTiff(sandbox.path("out.tif")));
      ASSERT_EQ(std::remove(sandbox.path("out.tif").c_str()), 0);
    } else {
      ++failures;
      ASSERT_THAT(sandbox.names(), ElementsAre("in"));
      ASSERT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
#ifndef __SANITIZE_ADDRESS__
    EXPECT_LT(result.peakKilobytes, 300 * 1024);
#endif
  }
  EXPECT_GT(failures, kFiles / 8) << "the damage has to be felt";
}

INSTANTIATE_TEST_SUITE_P(Seeds, MutationTest, testing::ValuesIn(kSeeds),
                         [](const auto& parameter) { return std::string(parameter.param.name); });

}  // namespace
