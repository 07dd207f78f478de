// Pictures in other sizes, sample by sample against the sum that defines them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "../support/rescale_model.h"
#include "console.h"
#include "errors.h"
#include "image.h"
#include "library_messages.h"
#include "resizing.h"
#include "result_rows.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::pattern;
using support::Png;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Tiff;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::uint32_t kBox = 0;
constexpr std::uint32_t kLanczos3 = 5;
constexpr const char* kFilterNames[] = {"box", "bicubic", "bilinear", "bspline", "catmull-rom", "lanczos3"};

// ---- The model

template <typename Sample>
Raster resizedAs(const Raster& raster, std::uint32_t width, std::uint32_t height, std::uint32_t filter) {
  support::SamplesModel<Sample> model{raster.width, raster.height, raster.samples, {}};
  for (const std::uint64_t value : raster.values) {
    Sample sample;
    std::memcpy(&sample, &value, sizeof(Sample));
    model.samples.push_back(sample);
  }
  Raster result(width, height, raster.samples, raster.bits);
  auto place = result.values.begin();
  for (std::uint32_t y = 0; y < height; ++y) {
    // One part in 2^40 less, which spares the last rows and columns: see EdgesAreWhole.
    const double scaleX = static_cast<double>(width) / raster.width * (1.0 - std::pow(2.0, -40));
    const double scaleY = static_cast<double>(height) / raster.height * (1.0 - std::pow(2.0, -40));
    for (const Sample sample :
         support::rescaledRowModel(model, 0, 0, raster.width, raster.height, scaleX, scaleY, width, y, filter)) {
      std::memcpy(&*place++, &sample, sizeof(Sample));
    }
  }
  return result;
}

// Of unsigned samples.
Raster resized(const Raster& raster, std::uint32_t width, std::uint32_t height, std::uint32_t filter = kLanczos3) {
  switch (raster.bits) {
    case 8:
      return resizedAs<std::uint8_t>(raster, width, height, filter);
    case 16:
      return resizedAs<std::uint16_t>(raster, width, height, filter);
    case 32:
      return resizedAs<std::uint32_t>(raster, width, height, filter);
    default:
      return resizedAs<std::uint64_t>(raster, width, height, filter);
  }
}

Raster cropped(const Raster& raster, std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height) {
  Raster result(width, height, raster.samples, raster.bits);
  for (std::uint32_t row = 0; row < height; ++row) {
    for (std::uint32_t column = 0; column < width; ++column) {
      for (std::uint32_t sample = 0; sample < raster.samples; ++sample) {
        result.at(column, row, sample) = raster.at(x + column, y + row, sample);
      }
    }
  }
  return result;
}

// The files of this process's images, tile by tile.
std::vector<std::string> backingFiles() {
  const std::string prefix = "process_" + std::to_string(getpid()) + "_";
  std::map<unsigned long, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(std::getenv("XDG_DATA_HOME"))) {
    const std::string name = entry.path().filename().string();
    if (name.starts_with(prefix)) {
      files[std::stoul(name.substr(prefix.size()))] = entry.path().string();
    }
  }
  std::vector<std::string> paths;
  for (const auto& [number, path] : files) {
    paths.push_back(path);
  }
  return paths;
}

// ---- Lengths

TEST(ProportionalLengthTest, IsRoundedToNearest) {
  EXPECT_EQ(kvtile::proportionalLength(872, 1000, 16000), 13952U);
  EXPECT_EQ(kvtile::proportionalLength(14, 10, 1), 1U);
  EXPECT_EQ(kvtile::proportionalLength(15, 10, 1), 2U);
  EXPECT_EQ(kvtile::proportionalLength(16, 10, 1), 2U);
  EXPECT_EQ(kvtile::proportionalLength(1, 1000, 1), 1U) << "at least one pixel";
  EXPECT_EQ(kvtile::proportionalLength(0xffffffff, 1, 0xffffffff), 18446744065119617025U);
  // A little less and a little more than one and a half.
  EXPECT_EQ(kvtile::proportionalLength(3, 0xffffffff, 2147483647), 1U);
  EXPECT_EQ(kvtile::proportionalLength(3, 0xffffffff, 2147483648), 2U);
}

// ---- Samples

std::string alphaNote(const std::string& out) {
  return "kvtile: " + out + ": colours are blended as they are, those that transparent pixels hide too\n";
}

struct Size {
  std::uint32_t width;
  std::uint32_t height;
};

// Neither side a multiple of anything that bytes or tiles like.
constexpr std::uint32_t kWidth = 37;
constexpr std::uint32_t kHeight = 23;

// Larger, smaller, both at once, and the least.
constexpr Size kSizes[] = {{91, 50}, {11, 7}, {100, 9}, {1, 1}};

std::vector<std::string> resizeCommand(const Size& size, const std::string& in, const std::string& out) {
  return {"resize", "--width", std::to_string(size.width), "--height", std::to_string(size.height), "--force", in, out};
}

class ResizeTest : public testing::Test {
 protected:
  // What the program says, which has to succeed.
  std::string run(const std::vector<std::string>& command) const {
    const Result result = sandbox_.kvtile(command);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.err;
  }

  // What the program says, which has to fail and to leave the input alone.
  std::string refusal(const std::vector<std::string>& options, const char* in, const char* out) const {
    std::vector<std::string> command = {"resize", in, out};
    command.insert(command.end(), options.begin(), options.end());
    const Result result = sandbox_.kvtile(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(sandbox_.names(), ElementsAre(in));
    return result.err;
  }

  std::string path(const std::string& name) const { return sandbox_.path(name); }

  Sandbox sandbox_;
};

TEST_F(ResizeTest, EveryTiffFormatIsTheDirectSum) {
  const std::pair<std::uint32_t, std::uint32_t> formats[] = {{1, 8},  {2, 8},  {3, 8},  {4, 8},  {5, 8}, {12, 8},
                                                             {1, 16}, {3, 16}, {7, 16}, {1, 32}, {3, 64}};
  for (const auto& [samples, bits] : formats) {
    const Tiff source = support::tiffOf(pattern(kWidth, kHeight, samples, bits));
    support::writeTiff(path("in.tif"), source);
    for (const Size& size : kSizes) {
      SCOPED_TRACE(testing::Message() << samples << " x " << bits << " to " << size.width << " x " << size.height);
      EXPECT_EQ(run(resizeCommand(size, "in.tif", "out.tif")), "");
      const Tiff made = support::readTiff(path("out.tif"));
      EXPECT_EQ(difference(resized(source.raster, size.width, size.height), made.raster), "");
      EXPECT_EQ(made.photometric, source.photometric);
      EXPECT_EQ(made.extras, source.extras);
    }
  }
}

TEST_F(ResizeTest, SignedAndFloatingPointSamplesAreNumbers) {
  Tiff source = support::tiffOf(pattern(kWidth, kHeight, 3, 16));
  source.sampleFormat = SAMPLEFORMAT_INT;
  support::writeTiff(path("in.tif"), source);
  run(resizeCommand({50, 30}, "in.tif", "out.tif"));
  Tiff made = support::readTiff(path("out.tif"));
  EXPECT_EQ(difference(resizedAs<std::int16_t>(source.raster, 50, 30, kLanczos3), made.raster), "");
  EXPECT_EQ(made.sampleFormat, SAMPLEFORMAT_INT);

  source = support::tiffOf(support::floatPattern(kWidth, kHeight, 3, 32));
  source.sampleFormat = SAMPLEFORMAT_IEEEFP;
  support::writeTiff(path("in.tif"), source);
  run(resizeCommand({50, 30}, "in.tif", "out.tif"));
  made = support::readTiff(path("out.tif"));
  EXPECT_EQ(difference(resizedAs<float>(source.raster, 50, 30, kLanczos3), made.raster), "");
  EXPECT_EQ(made.sampleFormat, SAMPLEFORMAT_IEEEFP);

  source.raster = support::floatPattern(kWidth, kHeight, 2, 64);
  source = support::tiffOf(source.raster);
  source.sampleFormat = SAMPLEFORMAT_IEEEFP;
  support::writeTiff(path("in.tif"), source);
  run(resizeCommand({50, 30}, "in.tif", "out.tif"));
  made = support::readTiff(path("out.tif"));
  EXPECT_EQ(difference(resizedAs<double>(source.raster, 50, 30, kLanczos3), made.raster), "");
  EXPECT_EQ(made.sampleFormat, SAMPLEFORMAT_IEEEFP);
}

TEST_F(ResizeTest, EachFilterIsItsOwn) {
  const Raster source = pattern(kWidth, kHeight, 3, 8);
  support::writePng(path("in.png"), support::pngOf(source));
  for (std::uint32_t filter = 0; filter < 6; ++filter) {
    for (const Size& size : {Size{60, 40}, Size{20, 9}}) {
      auto command = resizeCommand(size, "in.png", "out.png");
      command.insert(command.end(), {"--filter", kFilterNames[filter]});
      EXPECT_EQ(run(command), "");
      EXPECT_EQ(difference(resized(source, size.width, size.height, filter), support::readPng(path("out.png")).raster),
                "")
          << kFilterNames[filter];
    }
  }
}

TEST_F(ResizeTest, PngGreyAlphaAndDeepSamples) {
  for (const auto& [samples, bits] : {std::pair{1U, 8U}, {1U, 16U}, {2U, 8U}, {3U, 16U}, {4U, 8U}, {4U, 16U}}) {
    const Png source = support::pngOf(pattern(kWidth, kHeight, samples, bits));
    support::writePng(path("in.png"), source);
    const bool alpha = samples == 2 || samples == 4;
    EXPECT_EQ(run(resizeCommand({50, 30}, "in.png", "out.png")), alpha ? alphaNote("out.png") : "");
    EXPECT_EQ(difference(resized(source.raster, 50, 30), support::readPng(path("out.png")).raster), "");
  }
}

TEST_F(ResizeTest, WideningComesFirst) {
  const Tiff source = support::tiffOf(pattern(kWidth, kHeight, 3, 2));
  support::writeTiff(path("in.tif"), source);
  run({"resize", "--to-8bit", "--width", "80", "in.tif", "out.png"});
  // 23 * 80 / 37 = 49.7
  EXPECT_EQ(difference(resized(support::widened(source.raster, 85), 80, 50), support::readPng(path("out.png")).raster),
            "");
}

TEST_F(ResizeTest, WhatTheFormatWantsComesLast) {
  Tiff white = support::tiffOf(pattern(kWidth, kHeight, 1, 8));
  white.photometric = PHOTOMETRIC_MINISWHITE;
  support::writeTiff(path("in.tif"), white);
  run(resizeCommand({50, 115}, "in.tif", "out.png"));
  Raster expected = resized(white.raster, 50, 115);
  for (auto& value : expected.values) {
    value = 255 - value;
  }
  EXPECT_EQ(difference(expected, support::readPng(path("out.png")).raster), "");

  // The horizontal predictor works on the rows that libtiff is given.
  Tiff predicted = support::tiffOf(pattern(kWidth, kHeight, 3, 16));
  predicted.compression = COMPRESSION_LZW;
  predicted.predictor = PREDICTOR_HORIZONTAL;
  support::writeTiff(path("in.tif"), predicted);
  run(resizeCommand({50, 115}, "in.tif", "out.tif"));
  const Tiff made = support::readTiff(path("out.tif"));
  EXPECT_EQ(made.predictor, PREDICTOR_HORIZONTAL);
  EXPECT_EQ(difference(resized(predicted.raster, 50, 115), made.raster), "");
}

// Where a side stays, or becomes a whole odd number of times as long or short, weights of exactly 0 would take the last
// pixels' place.
TEST_F(ResizeTest, EdgesAreWhole) {
  const Raster grey = [] {
    Raster raster(45, 45, 1, 8);
    std::fill(raster.values.begin(), raster.values.end(), 200);
    return raster;
  }();
  support::writePng(path("in.png"), support::pngOf(grey));
  for (const char* filter : kFilterNames) {
    for (const Size& size : {Size{45, 60}, Size{60, 45}, Size{135, 225}, Size{15, 9}, Size{9, 315}, Size{90, 45}}) {
      auto command = resizeCommand(size, "in.png", "out.png");
      command.insert(command.end(), {"--filter", filter});
      run(command);
      const Raster made = support::readPng(path("out.png")).raster;
      EXPECT_THAT(made.values, testing::Each(200)) << filter << " to " << size.width << " x " << size.height;
    }
  }
}

// ---- Palettes

// The colours of an indexed picture, with alpha if there are 4 samples.
Raster colours(const Png& picture, std::uint32_t samples) {
  const Raster& indices = picture.raster;
  Raster result(indices.width, indices.height, samples, 8);
  for (std::size_t i = 0; i < indices.values.size(); ++i) {
    const std::size_t index = indices.values[i];
    for (std::uint32_t sample = 0; sample < 3; ++sample) {
      result.values[i * samples + sample] = picture.palette[index][sample];
    }
    if (samples == 4) {
      result.values[i * samples + 3] = index < picture.paletteAlpha.size() ? picture.paletteAlpha[index] : 255;
    }
  }
  return result;
}

TEST_F(ResizeTest, PalettesBecomeColours) {
  for (const std::uint32_t bits : {1U, 2U, 4U, 8U}) {
    Png source = support::palettePng(pattern(kWidth, kHeight, 1, bits));
    for (const std::uint32_t samples : {3U, 4U}) {
      source.paletteAlpha = samples == 4 ? std::vector<std::uint8_t>{7, 77} : std::vector<std::uint8_t>{};
      support::writePng(path("in.png"), source);
      for (const char* out : {"out.png", "out.tif"}) {
        EXPECT_EQ(run(resizeCommand({50, 60}, "in.png", out)), samples == 4 ? alphaNote(out) : "");
        const Raster made =
            out == std::string("out.png") ? support::readPng(path(out)).raster : support::readTiff(path(out)).raster;
        EXPECT_EQ(difference(resized(colours(source, samples), 50, 60), made), "") << bits << ", " << samples;
      }
    }
  }
}

TEST_F(ResizeTest, NarrowPalettesOfTiffsAreSpread) {
  Tiff source = support::tiffOf(pattern(kWidth, kHeight, 1, 4));
  source.photometric = PHOTOMETRIC_PALETTE;
  support::ColourMap map;
  Png same = support::palettePng(source.raster);
  for (const auto& colour : same.palette) {
    map.red.push_back(colour[0]);
    map.green.push_back(colour[1]);
    map.blue.push_back(colour[2]);
  }
  source.colourMap = map;
  support::writeTiff(path("in.tif"), source);
  run(resizeCommand({50, 60}, "in.tif", "out.tif"));
  EXPECT_EQ(difference(resized(colours(same, 3), 50, 60), support::readTiff(path("out.tif")).raster), "");
}

TEST_F(ResizeTest, StrongShrinkingIsTold) {
  support::writePng(path("in.png"), support::pngOf(pattern(1000, 99, 1, 8)));
  const auto said = [this](const char* width, const char* height) {
    return run({"resize", "--width", width, "--height", height, "--force", "in.png", "out.png"});
  };
  const char* const note =
      "kvtile: out.png: each pixel is made of the 100 nearest ones in each direction, which are not all that it stands "
      "for\n";
  EXPECT_EQ(said("11", "2"), "");
  EXPECT_EQ(said("10", "2"), note);
  EXPECT_EQ(said("11", "1"), note);
}

TEST_F(ResizeTest, PalettesAndTheirColoursCountBoth) {
  support::writePng(path("in.png"), support::palettePng(pattern(1000, 1000, 1, 8)));
  // 24 million bits and 3 MB beside them.
  EXPECT_THAT(run({"resize", "--width", "10", "--stats", "in.png", "out.png"}),
              HasSubstr("stats: image kept in memory, its copy in colours in memory, peak"));
  std::remove(path("out.png").c_str());
  support::writePng(path("in.png"), support::palettePng(pattern(4000, 4000, 1, 8)));
  EXPECT_EQ(refusal({"--width", "50", "--storage", "memory", "--budget", "192M"}, "in.png", "out.png"),
            "kvtile: in.png: the image and its copy need 96 MB of memory; run again with --budget 448M, or with "
            "--storage file\n");
}

TEST_F(ResizeTest, TransparentColoursAreNotBlendedAndTheUserIsTold) {
  Png source = support::pngOf(pattern(kWidth, kHeight, 1, 8));
  source.colourKey = {{9, 9, 9}};
  support::writePng(path("in.png"), source);
  EXPECT_EQ(run(resizeCommand({50, 60}, "in.png", "out.png")),
            "kvtile: out.png: only pixels that have the transparent colour exactly are transparent\n");
  EXPECT_EQ(support::readPng(path("out.png")).colourKey, source.colourKey);
}

// ---- Parts

TEST_F(ResizeTest, PartsOfEveryFormatAreCopied) {
  const std::pair<std::uint32_t, std::uint32_t> formats[] = {{1, 1}, {1, 2}, {1, 4},  {3, 4},  {1, 8},
                                                             {3, 8}, {9, 1}, {1, 24}, {4, 16}, {2, 64}};
  for (const auto& [samples, bits] : formats) {
    const Tiff source = support::tiffOf(pattern(kWidth, kHeight, samples, bits));
    support::writeTiff(path("in.tif"), source);
    EXPECT_EQ(run({"resize", "--crop", "3,5,20,11", "--force", "in.tif", "out.tif"}), "");
    EXPECT_EQ(difference(cropped(source.raster, 3, 5, 20, 11), support::readTiff(path("out.tif")).raster), "")
        << samples << " x " << bits;
  }
  Png indices = support::palettePng(pattern(kWidth, kHeight, 1, 4));
  support::writePng(path("in.png"), indices);
  run({"resize", "--crop", "36,22,1,1", "in.png", "out.png"});
  const Png made = support::readPng(path("out.png"));
  EXPECT_EQ(difference(cropped(indices.raster, 36, 22, 1, 1), made.raster), "");
  EXPECT_EQ(made.palette, indices.palette);
}

// Nothing from beyond the part is blended in.
TEST_F(ResizeTest, PartsAreResizedByThemselves) {
  const Raster source = pattern(kWidth, kHeight, 3, 8);
  support::writePng(path("in.png"), support::pngOf(source));
  run({"resize", "--crop", "3,5,20,11", "--scale", "2", "in.png", "out.png"});
  EXPECT_EQ(difference(resized(cropped(source, 3, 5, 20, 11), 40, 22), support::readPng(path("out.png")).raster), "");
}

TEST_F(ResizeTest, PartsAreThoseOfTheUprightPicture) {
  const Raster upright = pattern(40, 30, 1, 8);
  for (std::uint16_t orientation = 1; orientation <= 8; ++orientation) {
    Tiff source = support::tiffOf(storedAs(upright, orientation));
    source.orientation = orientation;
    support::writeTiff(path("in.tif"), source);
    run({"resize", "--crop", "10,2,20,25", "--width", "30", "--force", "in.tif", "out.tif"});
    const Tiff made = support::readTiff(path("out.tif"));
    // 25 * 30 / 20 = 37.5
    EXPECT_EQ(difference(resized(cropped(upright, 10, 2, 20, 25), 30, 38), made.raster), "") << orientation;
    EXPECT_EQ(made.orientation.value_or(1), 1);
  }
}

// ---- Threads and places

TEST_F(ResizeTest, AnyNumberOfThreadsMakesTheSame) {
  // Rows of 150,000 bytes: bands of 27 rows, more of them than most threads.
  const Tiff source = support::tiffOf(pattern(50, 20, 3, 8));
  support::writeTiff(path("in.tif"), source);
  const std::vector<std::string> command = {"resize",   "--width",  "50000",   "--height", "150",
                                            "--filter", "bilinear", "--force", "in.tif",   "out.tif"};
  const auto made = [&](std::initializer_list<std::string> options) {
    std::vector<std::string> words = command;
    words.insert(words.end(), options);
    run(words);
    return sandbox_.read("out.tif");
  };
  const std::string one = made({"--threads", "1", "--storage", "memory"});
  EXPECT_EQ(difference(resized(source.raster, 50000, 150, 2), support::readTiff(path("out.tif")).raster), "");
  for (const char* threads : {"2", "3", "7", "256"}) {
    EXPECT_EQ(made({"--threads", threads}), one) << threads;
  }
  EXPECT_EQ(made({"--threads", "4", "--storage", "file"}), one);
  EXPECT_EQ(made({}), one);
}

// Tiles of 4096 rows, one in a file each. Without the file of the first or of the last, some thread's rows cannot be
// made, at once or after others that could.
TEST(ResultRowsTest, AThreadThatFailsEndsTheWork) {
  kvtile::Picture picture;
  picture.width = 64;
  picture.height = 12000;
  kvtile::Resizing resizing;
  resizing.area = {0, 0, picture.width, picture.height};
  resizing.scales = true;
  resizing.picture = picture.resized(60000, 600);
  resizing.threads = 3;
  kvtile::Console console(false, true);
  kvtile::LibraryMessages messages(console);
  const kvtile::Storage storage(0, kvtile::Placement::Files);
  for (const bool first : {true, false}) {
    kvtile::Image image("in.tif", picture, storage, messages);
    const std::vector<std::string> tiles = backingFiles();
    ASSERT_EQ(tiles.size(), 3U);
    ASSERT_EQ(std::remove((first ? tiles.front() : tiles.back()).c_str()), 0);
    const auto rows = kvtile::makeResultRows(image, resizing);
    std::uint32_t made = 0;
    try {
      for (; made < 600; ++made) {
        rows->next();
      }
    } catch (const kvtile::Failure& failure) {
      EXPECT_THAT(failure.what(), testing::StartsWith("in.tif: row "));
      EXPECT_THAT(failure.what(), HasSubstr(" of the new size cannot be made ("));
    }
    EXPECT_LT(made, 600U);
    EXPECT_EQ(made == 0, first) << made;
  }
}

TEST_F(ResizeTest, MoreThreadsThanRows) {
  const Raster source = pattern(50, 20, 1, 8);
  support::writePng(path("in.png"), support::pngOf(source));
  run({"resize", "--width", "7", "--height", "3", "--threads", "40", "in.png", "out.png"});
  EXPECT_EQ(difference(resized(source, 7, 3), support::readPng(path("out.png")).raster), "");
}

// ---- Sizes and what goes with them

TEST_F(ResizeTest, TheOtherSideFollows) {
  const Raster source = pattern(40, 30, 3, 8);
  support::writePng(path("in.png"), support::pngOf(source));
  const auto made = [this](const char* option, const char* value) {
    run({"resize", option, value, "--filter", "box", "--force", "in.png", "out.png"});
    return support::readPng(path("out.png")).raster;
  };
  EXPECT_EQ(difference(resized(source, 20, 15, kBox), made("--width", "20")), "");
  EXPECT_EQ(difference(resized(source, 80, 60, kBox), made("--height", "60")), "");
  EXPECT_EQ(difference(resized(source, 6, 5, kBox), made("--width", "6")), "") << "4.5 is rounded up";
  EXPECT_EQ(difference(resized(source, 1, 1, kBox), made("--height", "1")), "");
  EXPECT_EQ(difference(resized(source, 10, 8, kBox), made("--scale", "0.25")), "") << "7.5 is rounded up";
  EXPECT_EQ(difference(resized(source, 64, 48, kBox), made("--scale", "1.6")), "");
  EXPECT_EQ(difference(resized(source, 1, 1, kBox), made("--scale", "1e-9")), "") << "at least one pixel";
  EXPECT_EQ(difference(source, made("--scale", "1")), "");
}

TEST_F(ResizeTest, TheResolutionStays) {
  Tiff source = support::tiffOf(pattern(40, 30, 1, 8));
  source.resolution = {{300, 150}};
  source.unit = RESUNIT_INCH;
  support::writeTiff(path("in.tif"), source);
  run({"resize", "--width", "80", "in.tif", "out.tif"});
  const Tiff made = support::readTiff(path("out.tif"));
  EXPECT_EQ(made.resolution, source.resolution);
  EXPECT_EQ(made.unit, RESUNIT_INCH);
}

// ---- What is refused

TEST_F(ResizeTest, SizesThatTheFileCannotHave) {
  support::writePng(path("in.png"), support::pngOf(pattern(10, 30, 1, 8)));
  EXPECT_EQ(refusal({"--width", "2147483648", "--height", "1"}, "in.png", "out.png"),
            "kvtile: out.png: PNG cannot hold a picture of this size; write a .tif instead\n");
  EXPECT_EQ(refusal({"--width", "1000000000"}, "in.png", "out.png"),
            "kvtile: out.png: PNG cannot hold a picture of this size; write a .tif instead\n");
  EXPECT_EQ(refusal({"--width", "2000000000"}, "in.png", "out.tif"),
            "kvtile: out.tif: the height would be 6000000000 pixels, more than 4294967295; give --height too\n");
  EXPECT_EQ(refusal({"--height", "4294967295", "--crop", "0,0,10,1"}, "in.png", "out.tif"),
            "kvtile: out.tif: the width would be 42949672950 pixels, more than 4294967295; give --width too\n");
  EXPECT_EQ(refusal({"--scale", "1e9"}, "in.png", "out.tif"),
            "kvtile: out.tif: the width would be 10000000000 pixels, more than 4294967295; take a smaller --scale\n");
  EXPECT_THAT(refusal({"--scale", "1e300"}, "in.png", "out.tif"), HasSubstr("take a smaller --scale"));
}

TEST_F(ResizeTest, SizesThatTakeTooMuchMemory) {
  support::writePng(path("in.png"), support::pngOf(pattern(10, 30, 4, 16)));
  for (const char* threads : {"1", "2"}) {
    EXPECT_EQ(refusal({"--width", "4294967295", "--height", "2", "--threads", threads}, "in.png", "out.tif"),
              "kvtile: in.png: the picture cannot be resized (a row of the result needs more memory than there is); "
              "take a smaller size, or close other programs\n");
  }
}

TEST_F(ResizeTest, PartsOutsideThePicture) {
  support::writePng(path("in.png"), support::pngOf(pattern(10, 30, 1, 8)));
  EXPECT_EQ(refusal({"--crop", "4,0,7,1"}, "in.png", "out.png"),
            "kvtile: in.png: the area of 7 x 1 pixels at 4,0 reaches beyond the picture; it has 10 x 30 pixels\n");
  EXPECT_EQ(refusal({"--crop", "4294967295,4294967295,4294967295,4294967295"}, "in.png", "out.png"),
            "kvtile: in.png: the area of 4294967295 x 4294967295 pixels at 4294967295,4294967295 reaches beyond the "
            "picture; it has 10 x 30 pixels\n");
}

TEST_F(ResizeTest, SamplesThatCannotBeBlended) {
  const auto refused = [this](const Tiff& source) {
    support::writeTiff(path("in.tif"), source);
    return refusal({"--width", "20"}, "in.tif", "out.tif");
  };
  EXPECT_EQ(refused(support::tiffOf(pattern(10, 30, 3, 4))),
            "kvtile: in.tif: its samples (3 x 4 bits, unsigned) cannot be blended; run again with --to-8bit to widen "
            "them\n");
  EXPECT_EQ(refused(support::tiffOf(pattern(10, 30, 1, 24))),
            "kvtile: in.tif: its samples (1 x 24 bits, unsigned) cannot be blended; convert it to 8, 16, 32 or 64 bits "
            "first\n");
  Tiff lab = support::tiffOf(pattern(10, 30, 3, 8));
  lab.photometric = PHOTOMETRIC_CIELAB;
  EXPECT_EQ(refused(lab),
            "kvtile: in.tif: the colours of CIE L*a*b* cannot be blended, as only two of three samples have signs; "
            "convert it to RGB first\n");
}

}  // namespace
