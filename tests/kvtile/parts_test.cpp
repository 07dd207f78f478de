// Parts of the program whose every case the program itself does not show.
#include <ember_logger/ember_logger.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tiffio.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "console.h"
#include "errors.h"
#include "image.h"
#include "library_messages.h"
#include "picture.h"
#include "progress.h"
#include "samples.h"
#include "support/raster.h"
#include "support/sandbox.h"
#include "system.h"
#include "text.h"
#include "tiff_writer.h"
#include "turn.h"

namespace {

using kvtile::needsBigTiff;
using kvtile::Picture;
using kvtile::Resolution;
using kvtile::ResolutionUnit;
using kvtile::Turn;
using support::pattern;
using support::Raster;

// What a turn does to a picture, by the two steps it stands for.
Raster apply(const Turn& turn, Raster raster) {
  for (std::int32_t angle = 0; angle < turn.rotation(); angle += 90) {
    raster = rotated90(raster);
  }
  if (turn.mirror() == KVTI_MIRROR_HORIZONTAL) {
    raster = mirroredLeftRight(raster);
  } else if (turn.mirror() == KVTI_MIRROR_VERTICAL) {
    raster = mirroredTopBottom(raster);
  }
  return raster;
}

TEST(TurnTest, CompositionIsOneAfterTheOther) {
  const Raster raster = pattern(3, 2, 1, 8);
  for (unsigned first = 1; first <= 8; ++first) {
    for (unsigned second = 1; second <= 8; ++second) {
      const Turn a = Turn::uprightFrom(first);
      const Turn b = Turn::uprightFrom(second);
      EXPECT_EQ(apply(a.then(b), raster), apply(b, apply(a, raster))) << first << ", " << second;
    }
  }
}

TEST(TurnTest, UprightUndoesTheOrientation) {
  const Raster upright = pattern(3, 2, 1, 8);
  for (unsigned orientation = 1; orientation <= 8; ++orientation) {
    const Turn turn = Turn::uprightFrom(orientation);
    EXPECT_EQ(apply(turn, storedAs(upright, orientation)), upright) << orientation;
    EXPECT_EQ(turn.swapsSides(), orientation >= 5);
    EXPECT_EQ(turn.isIdentity(), orientation == 1);
  }
  EXPECT_TRUE(Turn::uprightFrom(0).isIdentity());
  EXPECT_TRUE(Turn::uprightFrom(9).isIdentity());
}

TEST(TurnTest, BasicTurnsAreWhatTheirNamesSay) {
  const Raster raster = pattern(3, 2, 1, 8);
  EXPECT_EQ(apply(Turn::quarterTurns(1), raster), rotated90(raster));
  EXPECT_EQ(apply(Turn::quarterTurns(-2), raster), rotated180(raster));
  EXPECT_EQ(apply(Turn::quarterTurns(-5), raster), rotated270(raster));
  EXPECT_EQ(apply(Turn::leftRightMirror(), raster), mirroredLeftRight(raster));
  EXPECT_EQ(apply(Turn::topBottomMirror(), raster), mirroredTopBottom(raster));
  EXPECT_EQ(Turn::topBottomMirror().rotation(), 0) << "one step, not two";
}

TEST(TurnTest, ParsesMultiplesOf90Only) {
  EXPECT_EQ(Turn::parseDegrees("0"), Turn());
  EXPECT_EQ(Turn::parseDegrees("-0"), Turn());
  EXPECT_EQ(Turn::parseDegrees("0090"), Turn::quarterTurns(1));
  EXPECT_EQ(Turn::parseDegrees("-90"), Turn::quarterTurns(3));
  EXPECT_EQ(Turn::parseDegrees("+810"), Turn::quarterTurns(1));
  EXPECT_EQ(Turn::parseDegrees("-9000000000000000000000000000090"), Turn::quarterTurns(-100000000000000001 % 4));
  for (const char* text : {"", "-", "+", "1", "89", "-45", "90 ", " 90", "90.", "1e2", "--90", "+-90"}) {
    EXPECT_EQ(Turn::parseDegrees(text), std::nullopt) << text;
  }
}

// ---- Rows

TEST(SamplesTest, WidensEveryValueToTheFullRange) {
  const std::uint8_t packed[] = {0x1B, 0xE4};
  std::array<std::uint8_t, 8> bytes = {};
  kvtile::widen(packed, 2, kvtile::widenedScale(2), 8, bytes);
  EXPECT_THAT(bytes, testing::ElementsAre(0, 85, 170, 255, 255, 170, 85, 0));
  std::array<std::uint8_t, 4> nibbles = {};
  kvtile::widen(packed, 4, kvtile::widenedScale(4), 4, nibbles);
  EXPECT_THAT(nibbles, testing::ElementsAre(17, 187, 238, 68));
  std::array<std::uint8_t, 3> bits = {};
  kvtile::widen(packed, 1, kvtile::widenedScale(1), 3, bits);
  EXPECT_THAT(bits, testing::ElementsAre(0, 0, 0));
}

TEST(SamplesTest, InsertsPlanesOfEveryDepthAndKeepsTheOthers) {
  for (const std::uint32_t bits : {1U, 2U, 4U, 8U, 16U, 24U, 32U, 64U}) {
    const Raster whole = pattern(21, 1, 3, bits);
    std::vector<std::uint8_t> row(packRow(whole, 0, 0, 21).size(), 0xFF);
    for (std::uint32_t plane = 0; plane < 3; ++plane) {
      kvtile::insertPlane(packRow(whole, 0, 0, 21, static_cast<int>(plane)), {3, bits, {}}, plane, 21, row);
    }
    Raster merged(21, 1, 3, bits);
    unpackRow(row, 0, merged);
    EXPECT_EQ(merged, whole) << bits;
  }
}

TEST(SamplesTest, PaletteNumbersBeyondTheEndAreOpaqueBlack) {
  kvtile::Palette palette;
  palette.entries = {{0xFFFF, 0x8080, 0}};
  palette.alpha = {9};
  const std::uint8_t indices[] = {0x01};
  std::array<std::uint8_t, 8> rgba = {};
  kvtile::expandPalette(indices, 4, palette, 2, 4, rgba);
  EXPECT_THAT(rgba, testing::ElementsAre(255, 128, 0, 9, 0, 0, 0, 255));
}

// ---- Resolution

TEST(ResolutionTest, InchesSurviveTheWayThroughMetres) {
  for (int dpi = 1; dpi <= 9600; ++dpi) {
    const Resolution inches{static_cast<double>(dpi), 72, ResolutionUnit::Inch};
    ASSERT_EQ(inches.forPng()->forTiff(), inches) << dpi;
  }
}

TEST(ResolutionTest, MetresSurviveTheWayThroughTiff) {
  for (int density = 1; density <= 400000; density += 7) {
    const Resolution metres{static_cast<double>(density), 1000, ResolutionUnit::Metre};
    ASSERT_EQ(metres.forTiff().forPng(), metres) << density;
  }
}

TEST(ResolutionTest, RatiosKeepTheirDigits) {
  const Resolution ratio{1.5, 1, ResolutionUnit::None};
  EXPECT_EQ(ratio.forPng(), (Resolution{1500, 1000, ResolutionUnit::None}));
  EXPECT_EQ(ratio.inInches(), std::nullopt);
}

TEST(ResolutionTest, WhatPngCannotHoldIsNothing) {
  EXPECT_EQ((Resolution{1e9, 1e9, ResolutionUnit::Inch}.forPng()), std::nullopt);
  EXPECT_EQ((Resolution{0.001, 0.001, ResolutionUnit::Inch}.forPng()), std::nullopt);
}

// ---- TIFF files to come

Picture pictureOf(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits) {
  Picture picture;
  picture.width = width;
  picture.height = height;
  picture.pixels.samples = samples;
  picture.pixels.bits = bits;
  return picture;
}

TEST(TiffWriterTest, UncompressedFilesBecomeBigWhenClassicEnds) {
  constexpr std::uint64_t kClassicEnd = std::uint64_t{1} << 32;
  const kvtile::TiffCoding plain{COMPRESSION_NONE, 1, 0};
  const auto bound = [&plain](std::uint32_t height) { return worstCaseBytes(pictureOf(1 << 20, height, 1, 8), plain); };
  EXPECT_FALSE(needsBigTiff(bound(4000)));
  EXPECT_GE(bound(4000), std::uint64_t{4000} << 20);
  EXPECT_TRUE(needsBigTiff(bound(4095)));
  EXPECT_TRUE(needsBigTiff(bound(4096)));
  EXPECT_TRUE(needsBigTiff(kClassicEnd));
  EXPECT_FALSE(needsBigTiff(kClassicEnd / 2));
}

TEST(TiffWriterTest, CompressedFilesCountAsLargeAsTheyCanGrow) {
  const Picture picture = pictureOf(1 << 20, 3000, 1, 8);
  EXPECT_FALSE(needsBigTiff(worstCaseBytes(picture, {COMPRESSION_ADOBE_DEFLATE, 2, 0})));
  EXPECT_TRUE(needsBigTiff(worstCaseBytes(picture, {COMPRESSION_LZW, 2, 0})));
  EXPECT_TRUE(needsBigTiff(worstCaseBytes(pictureOf(1 << 20, 6000, 1, 1), {COMPRESSION_CCITTFAX4, 1, 0})));
  EXPECT_EQ(worstCaseBytes(pictureOf(0xffffffff, 0xffffffff, 65535, 64), {COMPRESSION_LZW, 1, 0}), UINT64_MAX);
}

// Pixels at which each codec is at its worst do not outgrow the bound.
TEST(TiffWriterTest, TheBoundHolds) {
  for (const std::uint16_t compression : std::initializer_list<std::uint16_t>{
           COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE, COMPRESSION_PACKBITS, COMPRESSION_ZSTD,
           COMPRESSION_LZMA, COMPRESSION_CCITTRLE, COMPRESSION_CCITTFAX3, COMPRESSION_CCITTFAX4}) {
    SCOPED_TRACE("compression " + std::to_string(compression));
    if (TIFFIsCODECConfigured(compression) == 0) {
      continue;
    }
    const bool fax = compression >= COMPRESSION_CCITTRLE && compression <= COMPRESSION_CCITTFAX4;
    Picture picture = pictureOf(fax ? 4000 : 500, 300, 1, fax ? 1 : 8);
    picture.tiff.emplace().compression = compression;
    const kvtile::TiffCoding coding = kvtile::chooseCoding(picture);
    ASSERT_EQ(coding.compression, compression);
    kvtile::Console console(false, true);
    const std::string path = testing::TempDir() + "kvtile-bound-" + std::to_string(compression);
    std::remove(path.c_str());
    kvtile::File file = kvtile::File::createExclusively(path, path);
    {
      kvtile::TiffWriter writer(file, path, picture, console);
      const Raster noise = pattern(500, 300, 1, 8);
      for (std::uint32_t y = 0; y < 300; ++y) {
        std::vector<std::uint8_t> row = packRow(noise, y, 0, 500);
        if (fax) {
          std::fill(row.begin(), row.end(), y % 2 == 0 ? 0x55 : 0xAA);
        }
        writer.writeRow(row);
      }
      writer.finish();
    }
    ASSERT_TRUE(file.flush());
    EXPECT_LE(file.size(), worstCaseBytes(picture, coding));
    // Everything but the pixels is small here: the bound says little unless they are what it counts.
    EXPECT_GT(file.size(), 100000U);
    std::remove(path.c_str());
  }
}

TEST(TiffWriterTest, NewPixelsGetThePredictorThatSuitsThem) {
  Picture picture = pictureOf(10, 10, 3, 8);
  EXPECT_EQ(chooseCoding(picture), (kvtile::TiffCoding{COMPRESSION_ADOBE_DEFLATE, PREDICTOR_HORIZONTAL, 0}));
  picture.pixels.bits = 24;
  EXPECT_EQ(chooseCoding(picture).predictor, PREDICTOR_NONE);
  picture.pixels.bits = 4;
  EXPECT_EQ(chooseCoding(picture).predictor, PREDICTOR_NONE);
  picture.pixels = {1, 32, kvtile::SampleFormat::Float};
  EXPECT_EQ(chooseCoding(picture).predictor, PREDICTOR_FLOATINGPOINT);
  picture.pixels = {1, 8, kvtile::SampleFormat::Unsigned};
  picture.photometric = kvtile::Photometric::Palette;
  EXPECT_EQ(chooseCoding(picture).predictor, PREDICTOR_NONE);
}

// ---- Memory and progress

using kvtile::Placement;
using kvtile::Storage;

TEST(StorageTest, TheBudgetIsTheLibrarysRule) {
  // One image: more than its bits. Two: the bits of the second beside the bytes of the first, whose rows are filled up
  // to whole groups of eight pixels: 104 x 10 x 3 bytes, and 16 x 5 bits.
  EXPECT_EQ(Storage::budgetFor(pictureOf(100, 10, 3, 8), 1), 24001U);
  EXPECT_EQ(Storage::budgetFor(pictureOf(100, 10, 3, 8), 2), 24001U + 3120);
  EXPECT_EQ(Storage::budgetFor(pictureOf(13, 5, 1, 1), 1), 66U);
  EXPECT_EQ(Storage::budgetFor(pictureOf(13, 5, 1, 1), 2), 66U + 10);
  EXPECT_EQ(Storage::budgetFor(pictureOf(0xffffffff, 0xffffffff, 2, 1), 2), std::nullopt);
}

constexpr std::uint64_t kMebibyte = 1 << 20;

TEST(StorageTest, AutomaticKeepsInMemoryWhatFitsTheBudget) {
  // 64 Mi bits and 63 Mi bits, 8 Mi bytes and 7.875 Mi bytes, under 64 Mi, 71 Mi and 72 Mi.
  const Picture whole = pictureOf(1024, 8192, 1, 8);
  const Picture smaller = pictureOf(1024, 8064, 1, 8);
  EXPECT_FALSE(Storage(64 * kMebibyte, Placement::Automatic).keepsInMemory(whole));
  EXPECT_TRUE(Storage(64 * kMebibyte, Placement::Automatic).keepsInMemory(smaller));
  EXPECT_TRUE(Storage(64 * kMebibyte + 1, Placement::Automatic).keepsInMemory(whole));
  EXPECT_FALSE(Storage(64 * kMebibyte, Placement::Automatic).keepsCopyInMemory(smaller, smaller));
  EXPECT_FALSE(Storage(72 * kMebibyte, Placement::Automatic).keepsCopyInMemory(whole, whole));
  EXPECT_TRUE(Storage(72 * kMebibyte + 1, Placement::Automatic).keepsCopyInMemory(whole, whole));
  EXPECT_TRUE(Storage(71 * kMebibyte, Placement::Automatic).keepsCopyInMemory(smaller, smaller));
}

TEST(StorageTest, FilesAreForTheImageAndTheBudgetForItsCopy) {
  const Storage storage(64 * kMebibyte, Placement::Files);
  EXPECT_TRUE(storage.forcesFiles());
  EXPECT_FALSE(storage.keepsInMemory(pictureOf(10, 10, 1, 8)));
  EXPECT_TRUE(storage.keepsCopyInMemory(pictureOf(1024, 8064, 1, 8), pictureOf(1024, 8064, 1, 8)));
  EXPECT_FALSE(storage.keepsCopyInMemory(pictureOf(1024, 8192, 1, 8), pictureOf(1024, 8192, 1, 8)));
}

TEST(StorageTest, OnlyMemoryHasToHoldTheImages) {
  const Picture picture = pictureOf(1024, 8192, 1, 8);
  for (const Placement placement : {Placement::Automatic, Placement::Files}) {
    EXPECT_NO_THROW(Storage(64 * kMebibyte, placement).require("in.png", picture, true));
  }
  EXPECT_THROW(Storage(64 * kMebibyte, Placement::Memory).require("in.png", picture, false), kvtile::Failure);
  EXPECT_NO_THROW(Storage(65 * kMebibyte, Placement::Memory).require("in.png", picture, false));
  EXPECT_THROW(Storage(65 * kMebibyte, Placement::Memory).require("in.png", picture, true), kvtile::Failure);
  EXPECT_NO_THROW(Storage(73 * kMebibyte, Placement::Memory).require("in.png", picture, true));
}

TEST(StorageTest, NothingHoldsWhatCannotBeCounted) {
  for (const Placement placement : {Placement::Automatic, Placement::Memory, Placement::Files}) {
    EXPECT_THROW(Storage(0, placement).require("in.tif", pictureOf(0xffffffff, 0xffffffff, 1, 8), false),
                 kvtile::Failure);
  }
}

// A pebibyte: no machine has as much, so the library refuses at once. In a process of its own: the budget stays.
TEST(ImageTest, AFailureTellsTheLibrarysReason) {
  const auto fail = [] {
    kvtile::Console console(false, true);
    kvtile::LibraryMessages messages(console);
    const Storage storage(std::uint64_t{1} << 60, Placement::Automatic);
    try {
      const kvtile::Image image("in.tif", pictureOf(1 << 30, 1 << 20, 1, 8), storage, messages);
    } catch (const kvtile::Failure& failure) {
      console.error(failure.what());
      std::_Exit(1);
    }
    std::_Exit(0);
  };
  EXPECT_EXIT(
      fail(), testing::ExitedWithCode(1),
      "^kvtile: in.tif: there is not enough memory for the image \\(the tiles take 1125899906842624 bytes, more "
      "than the machine's [0-9]+ bytes\\); close other programs, or run again with --storage file\n$");
}

TEST(LibraryMessagesTest, TheReasonIsTheFirstErrorsText) {
  kvtile::Console console(false, true);
  kvtile::LibraryMessages messages(console);
  ember_logger::Logger logger("KvTileImage", nullptr, ember_logger::trace, false, false, false, true, 0x100000, nullptr,
                              nullptr, nullptr);
  logger.log(ember_logger::warning, "[%s] slow", "Disk::write");
  EXPECT_EQ(messages.reason(), "");
  logger.log(ember_logger::error, "[%s] the files take %d bytes; /tmp has %d bytes free.", "Files::create", 12, 3);
  logger.log(ember_logger::error, "[%s] create failed!", "Image::create");
  EXPECT_EQ(messages.reason(), " (the files take 12 bytes, /tmp has 3 bytes free)");
  messages.forget();
  EXPECT_EQ(messages.reason(), "");
  logger.log(ember_logger::error, "create failed!");
  EXPECT_EQ(messages.reason(), " (create failed)");
}

TEST(LibraryMessagesTest, ExpectedErrorsAreNoReason) {
  kvtile::Console console(false, true);
  kvtile::LibraryMessages messages(console);
  ember_logger::Logger logger("KvTileImage", nullptr, ember_logger::trace, false, false, false, true, 0x100000, nullptr,
                              nullptr, nullptr);
  const auto look = [&logger] {
    logger.log(ember_logger::error, "[Files::read] a.json open failed!");
    logger.log(ember_logger::error, "[Image::find] read failed");
  };
  look();
  messages.expectThese();
  EXPECT_EQ(messages.reason(), "");
  look();
  EXPECT_EQ(messages.reason(), "");
  logger.log(ember_logger::error, "[Files::create] the disk is full");
  EXPECT_EQ(messages.reason(), " (the disk is full)");
  messages.forget();
  look();
  EXPECT_EQ(messages.reason(), " (a.json open failed)") << "expected no longer";
}

TEST(LibraryMessagesTest, ManyErrorsAreNotAllKept) {
  kvtile::Console console(false, true);
  kvtile::LibraryMessages messages(console);
  ember_logger::Logger logger("KvTileImage", nullptr, ember_logger::trace, false, false, false, true, 0x100000, nullptr,
                              nullptr, nullptr);
  for (int i = 0; i < 100000; ++i) {
    logger.log(ember_logger::error, "row %d failed", i);
  }
  EXPECT_EQ(messages.reason(), " (row 0 failed)");
}

// The library is stopped by an exception from its callback. In a process of its own: the request stays made.
TEST(ImageTest, ARequestToStopEndsTheTurning) {
  const auto turnAfterRequest = [] {
    kvtile::Console console(false, true);
    kvtile::Progress progress(console);
    kvtile::LibraryMessages messages(console);
    const Picture picture = pictureOf(100, 100, 1, 8);
    kvtile::Image image("in.png", picture, Storage(0, Placement::Automatic), messages);
    kvtile::system::catchStopRequests();
    std::raise(SIGTERM);
    try {
      image.turn(Turn::quarterTurns(1), picture, progress);
    } catch (const kvtile::Interrupted&) {
      std::_Exit(image.width() == 100 ? 7 : 8);
    }
    std::_Exit(9);
  };
  EXPECT_EXIT(turnAfterRequest(), testing::ExitedWithCode(7), "^$");
}

TEST(ImageTest, TheResolutionIsTheImagesToo) {
  Picture picture = pictureOf(10, 10, 1, 8);
  picture.resolution = Resolution{11811, 3937, ResolutionUnit::Metre};
  kvtile::Console console(false, true);
  kvtile::LibraryMessages messages(console);
  const kvtile::Image image("in.png", picture, Storage(0, Placement::Automatic), messages);
  EXPECT_NEAR(image.dpiX(), 300, 0.01);
  EXPECT_NEAR(image.dpiY(), 100, 0.01);
}

TEST(ProgressLineTest, FitsItsColumns) {
  EXPECT_EQ(kvtile::progressLine("reading", 0, 10, 79), "reading [" + std::string(40, '.') + "]   0%");
  EXPECT_EQ(kvtile::progressLine("turning", 5, 10, 79),
            "turning [" + std::string(20, '#') + std::string(20, '.') + "]  50%");
  EXPECT_EQ(kvtile::progressLine("writing", 10, 10, 79), "writing [" + std::string(40, '#') + "] 100%");
  for (int columns = 0; columns < 80; ++columns) {
    EXPECT_LE(kvtile::progressLine("reading", 3, 10, columns).size(), static_cast<std::size_t>(columns));
  }
}

TEST(TextTest, KnowsTextFromOtherBytes) {
  for (const std::string text : {"", "0 1\r\n\t# a", "\xc3\xbc", "\xe2\x82\xac", "\xf0\x9f\x98\x80"}) {
    EXPECT_TRUE(kvtile::isText(text)) << text;
  }
  // Controls, bytes that begin nothing, characters cut off, spelled too long, halves of pairs, beyond the last one.
  for (const std::string& bytes :
       {std::string(1, '\0'), std::string("\x1b"), std::string("\x7f"), std::string("\x80"), std::string("\xff"),
        std::string("a\xc3"), std::string("\xe2\x82 "), std::string("\xc0\x80"), std::string("\xe0\x80\x80"),
        std::string("\xed\xa0\x80"), std::string("\xf0\x80\x80\x80"), std::string("\xf4\x90\x80\x80")}) {
    EXPECT_FALSE(kvtile::isText(bytes)) << testing::PrintToString(bytes);
  }
}

TEST(TextTest, MakesNamesReadable) {
  EXPECT_EQ(kvtile::asUtf8("scan 1.tif"), "scan 1.tif");
  EXPECT_EQ(kvtile::asUtf8("\xc3\xbc\n\xff\xe2\x82x"), "\xc3\xbc????x");
}

TEST(TextTest, CountsCharacters) {
  EXPECT_EQ(kvtile::characters(""), 0U);
  EXPECT_EQ(kvtile::characters("scan 1"), 6U);
  EXPECT_EQ(kvtile::characters("\xc3\xbc\xe2\x82\xac\xf0\x9f\x98\x80x"), 4U);
}

// A shell is who knows best.
TEST(TextTest, WordsOfAShellAreWhatTheyStandFor) {
  for (const std::string text :
       {"scans/page-1.2", "", "two words", "Ann's", "''", "$HOME `id` \\ \"x\" *?~&;|<>#!", "-n"}) {
    const std::string command = "printf %s- " + kvtile::shellWord(text);
    std::FILE* shell = popen(command.c_str(), "r");
    ASSERT_NE(shell, nullptr);
    std::array<char, 100> said = {};
    const std::size_t length = std::fread(said.data(), 1, said.size(), shell);
    pclose(shell);
    EXPECT_EQ(std::string(said.data(), length), text + "-");
  }
  EXPECT_EQ(kvtile::shellWord("scans/page-1.2"), "scans/page-1.2");
}

// ---- Shared images

TEST(PictureTest, IsAssumedByItsSamples) {
  using kvtile::Extra;
  using kvtile::Photometric;
  const auto assumed = [](std::uint32_t samples) {
    return Picture::assumed(7, 5, {samples, 16, kvtile::SampleFormat::Signed});
  };
  const Picture grey = assumed(1);
  EXPECT_EQ(grey.width, 7U);
  EXPECT_EQ(grey.height, 5U);
  EXPECT_EQ(grey.pixels, (kvtile::PixelFormat{1, 16, kvtile::SampleFormat::Signed}));
  EXPECT_EQ(grey.photometric, Photometric::BlackIsZero);
  EXPECT_EQ(assumed(2).photometric, Photometric::BlackIsZero);
  EXPECT_EQ(assumed(3).photometric, Photometric::Rgb);
  EXPECT_EQ(assumed(4).photometric, Photometric::Rgb);
  EXPECT_THAT(grey.extras, testing::IsEmpty());
  EXPECT_THAT(assumed(2).extras, testing::ElementsAre(Extra::StraightAlpha));
  EXPECT_THAT(assumed(3).extras, testing::IsEmpty());
  EXPECT_THAT(assumed(4).extras, testing::ElementsAre(Extra::StraightAlpha));
  EXPECT_THAT(assumed(5).extras, testing::ElementsAre(Extra::Unspecified, Extra::Unspecified));
}

TEST(SampleFormatTest, CodesOfTheLibraryAreUnderstood) {
  using kvtile::SampleFormat;
  const std::pair<std::uint32_t, SampleFormat> cases[] = {{KVTI_SAMPLEFORMAT_UINT, SampleFormat::Unsigned},
                                                          {KVTI_SAMPLEFORMAT_INT, SampleFormat::Signed},
                                                          {KVTI_SAMPLEFORMAT_FLOAT, SampleFormat::Float},
                                                          {4, SampleFormat::Untyped},
                                                          {KVTI_SAMPLEFORMAT_INT64, SampleFormat::Signed},
                                                          {KVTI_SAMPLEFORMAT_DOUBLE, SampleFormat::Float},
                                                          {KVTI_SAMPLEFORMAT_UNSET, SampleFormat::Unsigned},
                                                          {0, SampleFormat::Unsigned},
                                                          {77, SampleFormat::Unsigned}};
  for (const auto& [code, format] : cases) {
    EXPECT_EQ(kvtile::sampleFormatOf(code), format) << code;
  }
  for (const std::uint32_t bits : {32U, 64U}) {
    for (const SampleFormat format :
         {SampleFormat::Unsigned, SampleFormat::Signed, SampleFormat::Float, SampleFormat::Untyped}) {
      EXPECT_EQ(kvtile::sampleFormatOf(kvtile::librarySampleformat({1, bits, format})), format);
    }
  }
}

TEST(LockTest, TellsWhatOthersHold) {
  using kvtile::system::FileLock;
  using kvtile::system::LockUse;
  using kvtile::system::lockUseOf;
  const support::Sandbox sandbox;
  const std::string path = sandbox.path("lock");
  int error = -1;
  EXPECT_EQ(lockUseOf(path), LockUse::NoFile);
  EXPECT_EQ(FileLock().tryTake(path, error), FileLock::Outcome::NoFile);
  EXPECT_EQ(error, ENOENT);
  EXPECT_THAT(sandbox.names(), testing::IsEmpty()) << "nothing is made";

  sandbox.write("lock", "");
  EXPECT_EQ(lockUseOf(path), LockUse::None);
  EXPECT_EQ(lockUseOf(sandbox.folder()), LockUse::Unknown);
  {
    FileLock lock;
    EXPECT_EQ(lock.tryTake(path, error), FileLock::Outcome::Taken);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(lockUseOf(path), LockUse::Exclusive);
    EXPECT_EQ(FileLock().tryTake(path, error), FileLock::Outcome::InUse);
  }
  EXPECT_EQ(lockUseOf(path), LockUse::None) << "given up with the object";

  support::Process sharer({"flock", "--no-fork", "--shared", "lock", "sh", "-c", "echo locked; exec sleep 60"},
                          sandbox.folder());
  ASSERT_EQ(sharer.firstLine(), "locked");
  EXPECT_EQ(lockUseOf(path), LockUse::Shared);
  EXPECT_EQ(FileLock().tryTake(path, error), FileLock::Outcome::InUse);
}

}  // namespace
