// Images that are kept in files while the program works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <tiffio.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "support/moves.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/terminal.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::Move;
using support::pattern;
using support::Process;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Terminal;
using support::Tiff;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

// The backing files have a folder of their own in the sandbox, to be seen there.
class FilesTest : public testing::Test {
 protected:
  FilesTest() {
    std::filesystem::create_directory(disk_);
    sandbox_.keepImagesIn(disk_);
  }

  // The library's files, whatever folders it makes for them.
  std::vector<std::string> backingFiles() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(disk_)) {
      if (entry.is_regular_file()) {
        found.push_back(entry.path().string());
      }
    }
    return found;
  }

  // `source` through `move` with `options`; the stats end with `places`.
  void expectMoved(const Move& move, const Tiff& source, const std::vector<std::string>& options,
                   const std::string& places) const {
    SCOPED_TRACE(testing::PrintToString(move.command) + testing::PrintToString(options));
    std::vector<std::string> command = support::commandLine(move, {"--force", "--stats", "in.tif", "out.tif"});
    command.insert(command.end(), options.begin(), options.end());
    const Result result = sandbox_.kvtile(command);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, StartsWith("kvtile: stats: image kept in " + places + ", peak memory "));
    EXPECT_EQ(difference(move.model(source.raster), support::readTiff(sandbox_.path("out.tif")).raster), "");
    EXPECT_THAT(backingFiles(), IsEmpty());
  }

  Sandbox sandbox_;
  std::string disk_ = sandbox_.path("disk");
};

// Small ones and packed ones too, each in a grid of one tile.
TEST_F(FilesTest, EveryFormatIsKeptInFilesWhenAskedTo) {
  for (const auto& [samples, bits] : std::initializer_list<std::pair<std::uint32_t, std::uint32_t>>{
           {1, 1}, {1, 4}, {3, 8}, {1, 24}, {4, 16}, {1, 64}}) {
    const Tiff source = support::tiffOf(pattern(37, 23, samples, bits));
    support::writeTiff(sandbox_.path("in.tif"), source);
    for (const Move& move : support::moves()) {
      const bool turning = move.command[0] != "convert";
      expectMoved(move, source, {"--storage", "file"}, turning ? "files, its turned copy in memory" : "files");
    }
  }
}

// 5000 x 300 pixels are two by two tiles of up to 4096 x 256; their 72 million bits are more than 64 Mi.
TEST_F(FilesTest, ImagesBeyondTheBudgetGoToFiles) {
  const Tiff source = support::tiffOf(pattern(5000, 300, 3, 16));
  support::writeTiff(sandbox_.path("in.tif"), source);
  for (const Move& move : support::moves()) {
    const bool turning = move.command[0] != "convert";
    expectMoved(move, source, {"--budget", "64M"}, turning ? "files, its turned copy in files" : "files");
  }
  // 72 million bits, and 9 million bytes in use by then.
  const Move& rotation = support::moves()[1];
  expectMoved(rotation, source, {"--budget", "72000001"}, "memory, its turned copy in files");
  expectMoved(rotation, source, {"--budget", "81000000"}, "memory, its turned copy in files");
  expectMoved(rotation, source, {"--budget", "81000001"}, "memory, its turned copy in memory");
}

// The library says where each image goes; the stats have to say the same.
TEST_F(FilesTest, StatsAgreeWithTheLibrary) {
  support::writeTiff(sandbox_.path("in.tif"), support::tiffOf(pattern(5001, 300, 3, 16)));
  // 5001 x 300 x 48 bits, and then 5008 x 300 x 6 bytes.
  constexpr std::uint64_t kOne = 72014400;
  constexpr std::uint64_t kTwo = kOne + 9014400;
  for (const std::uint64_t budget : {kOne, kOne + 1, kTwo, kTwo + 1}) {
    const Result result = sandbox_.kvtile(
        {"rotate", "90", "--force", "--verbose", "--stats", "--budget", std::to_string(budget), "in.tif", "out.tif"});
    ASSERT_EQ(result.status, 0) << result.err;
    const auto memory = [&result](std::size_t from) {
      return result.err.find("use memory", from) < result.err.find("use file mapping", from);
    };
    const std::size_t copy = result.err.find("use ", result.err.find("] use ") + 8);
    const std::string expected = std::string("stats: image kept in ") + (memory(0) ? "memory" : "files") +
                                 ", its turned copy in " + (memory(copy) ? "memory" : "files") + ",";
    EXPECT_THAT(result.err, HasSubstr(expected)) << budget;
    EXPECT_EQ(memory(0), budget > kOne);
    EXPECT_EQ(memory(copy), budget > kTwo);
  }
}

TEST_F(FilesTest, InterlacedAndSeparateSourcesComeThrough) {
  support::Png png = support::pngOf(pattern(5000, 300, 3, 16));
  png.interlaced = true;
  support::writePng(sandbox_.path("in.png"), png);
  ASSERT_EQ(sandbox_.kvtile({"convert", "--storage", "file", "in.png", "out.png"}).status, 0);
  EXPECT_EQ(difference(png.raster, support::readPng(sandbox_.path("out.png")).raster), "");

  Tiff tiff = support::tiffOf(png.raster);
  tiff.separate = true;
  tiff.tileWidth = 512;
  tiff.tileHeight = 256;
  support::writeTiff(sandbox_.path("in.tif"), tiff);
  ASSERT_EQ(sandbox_.kvtile({"resize", "--crop", "500,50,4000,200", "--storage", "file", "in.tif", "out.tif"}).status,
            0);
  Raster expected(4000, 200, 3, 16);
  for (std::uint32_t y = 0; y < 200; ++y) {
    for (std::uint32_t x = 0; x < 4000; ++x) {
      for (std::uint32_t sample = 0; sample < 3; ++sample) {
        expected.at(x, y, sample) = png.raster.at(x + 500, y + 50, sample);
      }
    }
  }
  EXPECT_EQ(difference(expected, support::readTiff(sandbox_.path("out.tif")).raster), "");
}

// ---- Room

// 2^27 x 2^27 pixels in a file of a few bytes: fax compression sets no bound to what they may become. 2 PiB.
TEST_F(FilesTest, TheReasonForTooLittleRoomIsTold) {
  constexpr std::uint32_t kSide = 1 << 27;
  TIFF* tiff = TIFFOpen(sandbox_.path("in.tif").c_str(), "w");
  ASSERT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kSide);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kSide);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 1);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, kSide);
  std::vector<std::uint8_t> data(100, 0x5A);
  ASSERT_EQ(TIFFWriteRawStrip(tiff, 0, data.data(), 100), 100);
  TIFFClose(tiff);
  const Result result = sandbox_.kvtile({"convert", "in.tif", "out.tif"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err,
              MatchesRegex("kvtile: in.tif: the image cannot be kept in files \\(the files of the image "
                           "take 2251799813685248 bytes, but [^;]*/disk/[^;]* has [0-9]+ bytes free[^;]*\\); "
                           "see to that folder, or run again with --storage memory --budget 16777217G\n"));
  EXPECT_THAT(sandbox_.names(), ElementsAre("disk", "in.tif"));
  EXPECT_THAT(backingFiles(), IsEmpty());
}

TEST_F(FilesTest, AFolderThatCannotBeMadeIsNamed) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(37, 23, 3, 8)));
  sandbox_.write("no-folder", "");
  sandbox_.keepImagesIn(sandbox_.path("no-folder"));
  const Result result = sandbox_.kvtile({"convert", "--storage", "file", "in.png", "out.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  EXPECT_THAT(result.err, AllOf(StartsWith("kvtile: in.png: the image cannot be kept in files ("),
                                HasSubstr(sandbox_.path("no-folder")),
                                HasSubstr("; see to that folder, or run again with --storage memory --budget 64M\n")));
  EXPECT_EQ(sandbox_.kvtile({"convert", "in.png", "out.png"}).status, 0) << "small images have no use for it";
}

// A disk with room for one image and not for two. Only root may mount one.
TEST_F(FilesTest, TooLittleRoomForTheTurnedCopyIsTold) {
  // 9 million bytes each.
  if (mount("kvtile-test", disk_.c_str(), "tmpfs", 0, "size=12m") != 0) {
    GTEST_SKIP() << "a file system of its own cannot be mounted here (root only)";
  }
  support::writeTiff(sandbox_.path("in.tif"), support::tiffOf(pattern(5000, 300, 3, 16)));
  const Result result = sandbox_.kvtile({"rotate", "90", "--budget", "64M", "in.tif", "out.tif"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(
      result.err,
      MatchesRegex("kvtile: in.tif: the image cannot be turned \\(the files of the image take [0-9]+ bytes, but "
                   "[^;]* has [0-9]+ bytes free[^;]*\\); see to that folder, or run again with --storage "
                   "memory --budget 128M\n"));
  EXPECT_THAT(backingFiles(), IsEmpty());
  EXPECT_EQ(sandbox_.kvtile({"convert", "--budget", "64M", "in.tif", "out.tif"}).status, 0);
  umount2(disk_.c_str(), MNT_DETACH);
}

// ---- Requests to stop

class StoppedFilesTest : public FilesTest, public testing::WithParamInterface<const char*> {};

TEST_P(StoppedFilesTest, LeaveNothing) {
  const std::string phase = GetParam();
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(3600, 3600, 3, 16)));
  constexpr int kAttempts = 8;  // the terminal's text may come when the work is done
  Result result;
  bool seen = false;
  for (int attempt = 0; attempt < kAttempts && result.status != 1; ++attempt) {
    std::remove(sandbox_.path("out.png").c_str());
    Terminal terminal;
    Process process({KVTILE_PROGRAM, "rotate", "90", "--budget", "64M", "in.png", "out.png"}, sandbox_.folder(),
                    terminal.slave());
    ASSERT_TRUE(terminal.waitFor(phase));
    seen = seen || !backingFiles().empty();
    process.send(SIGINT);
    result = process.wait();
    EXPECT_THAT(backingFiles(), IsEmpty());
  }
  EXPECT_TRUE(seen) << "there have to be files that could be left behind";
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(sandbox_.names(), ElementsAre("disk", "in.png"));
}

INSTANTIATE_TEST_SUITE_P(Phases, StoppedFilesTest, testing::Values("reading", "turning", "writing"),
                         [](const auto& parameter) { return std::string(parameter.param); });

}  // namespace
