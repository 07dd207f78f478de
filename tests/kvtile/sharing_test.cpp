// Pictures that go from one process to another: share and attach.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tiffio.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/sharer.h"
#include "support/terminal.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::filesOfSharedImages;
using support::pattern;
using support::pngOf;
using support::Process;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Sharer;
using support::Terminal;
using support::Tiff;
using support::tiffOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// Images are kept in the sandbox, where what is left of them shows.
class SharingTest : public testing::Test {
 protected:
  SharingTest() {
    sandbox_.copyProgram();
    std::filesystem::create_directory(sandbox_.path("disk"));
    sandbox_.keepImagesIn(sandbox_.path("disk"));
  }

  void writePicture(const std::string& name, const Raster& raster) const {
    support::writePng(sandbox_.path(name), pngOf(raster));
  }

  // The picture of `identifier` as PNG.
  Raster attached(const std::string& identifier) const {
    const Result result = sandbox_.kvtile({"attach", "--force", identifier, "attached.png"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    return result.status == 0 ? support::readPng(sandbox_.path("attached.png")).raster : Raster();
  }

  Tiff attachedTiff(const std::string& identifier) const {
    const Result result = sandbox_.kvtile({"attach", "--force", identifier, "attached.tif"});
    EXPECT_EQ(result.status, 0) << result.err;
    return result.status == 0 ? support::readTiff(sandbox_.path("attached.tif")) : Tiff();
  }

  // The one line of a command that fails with `status` and makes no file.
  std::string failure(const std::vector<std::string>& arguments, int status = 1) const {
    const std::vector<std::string> before = sandbox_.names();
    const Result result = sandbox_.kvtile(arguments);
    EXPECT_EQ(result.status, status) << testing::PrintToString(arguments);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(sandbox_.names(), before);
    return result.err;
  }

  Sandbox sandbox_;
  Raster source_ = pattern(60, 40, 3, 8);
};

// ---- What arrives

TEST_F(SharingTest, PixelsArriveAsTheyWere) {
  for (const auto& [samples, bits] : std::initializer_list<std::pair<std::uint32_t, std::uint32_t>>{
           {1, 1}, {1, 2}, {1, 4}, {1, 8}, {1, 16}, {2, 8}, {2, 16}, {3, 8}, {3, 16}, {4, 8}, {4, 16}}) {
    SCOPED_TRACE(testing::Message() << samples << " x " << bits);
    const Raster source = pattern(37, 23, samples, bits);
    writePicture("in.png", source);
    Sharer sharer(sandbox_, {"scan", "in.png"});
    EXPECT_EQ(difference(source, attached("scan")), "");
    const Tiff tiff = attachedTiff("scan");
    EXPECT_EQ(difference(source, tiff.raster), "");
    EXPECT_EQ(tiff.photometric, samples < 3 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB);
    EXPECT_EQ(tiff.extras, std::vector<std::uint16_t>(1 - samples % 2, EXTRASAMPLE_UNASSALPHA));
    EXPECT_EQ(sharer.end().err, "");
  }
}

TEST_F(SharingTest, SamplesThatOnlyTiffHoldsArriveToo) {
  std::vector<Tiff> sources = {tiffOf(pattern(37, 23, 3, 4)), tiffOf(pattern(37, 23, 1, 24)),
                               tiffOf(support::floatPattern(37, 23, 3, 32)), tiffOf(support::floatPattern(9, 7, 1, 64)),
                               tiffOf(pattern(37, 23, 1, 16))};
  sources[2].sampleFormat = SAMPLEFORMAT_IEEEFP;
  sources[3].sampleFormat = SAMPLEFORMAT_IEEEFP;
  sources[4].sampleFormat = SAMPLEFORMAT_INT;
  for (const Tiff& source : sources) {
    support::writeTiff(sandbox_.path("in.tif"), source);
    Sharer sharer(sandbox_, {"scan", "in.tif"});
    const Tiff tiff = attachedTiff("scan");
    EXPECT_EQ(difference(source.raster, tiff.raster), "");
    EXPECT_EQ(tiff.sampleFormat, source.sampleFormat);
    EXPECT_EQ(sharer.end().err, "");
  }
}

TEST_F(SharingTest, PicturesOfManyTilesArrive) {
  const Raster source = pattern(4000, 3500, 1, 8);
  writePicture("in.png", source);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  EXPECT_EQ(difference(source, attached("scan")), "");
  EXPECT_EQ(sharer.end().status, 0);
}

TEST_F(SharingTest, PalettesArriveAsColours) {
  support::Png source = support::palettePng(pattern(20, 10, 1, 4));
  for (const std::uint32_t samples : {3U, 4U}) {
    source.paletteAlpha = samples == 4 ? std::vector<std::uint8_t>{0, 100} : std::vector<std::uint8_t>{};
    support::writePng(sandbox_.path("in.png"), source);
    Raster expected(20, 10, samples, 8);
    for (std::uint32_t i = 0; i < 200; ++i) {
      const std::uint64_t index = source.raster.values[i];
      for (std::uint32_t sample = 0; sample < samples; ++sample) {
        const std::uint64_t alpha = index < 2 ? index * 100 : 255;
        expected.values[std::size_t{i} * samples + sample] = sample < 3 ? source.palette[index][sample] : alpha;
      }
    }
    Sharer sharer(sandbox_, {"scan", "in.png"});
    EXPECT_EQ(difference(expected, attached("scan")), "");
    EXPECT_EQ(sharer.end().err, "");
  }
}

// TIFF's palettes have 16 bits a colour, or 8 by some programs.
TEST_F(SharingTest, PalettesOfTiffFilesArriveAsColours) {
  Tiff source = tiffOf(pattern(20, 10, 1, 2));
  source.photometric = PHOTOMETRIC_PALETTE;
  for (const int unit : {1, 257}) {
    const auto times = [unit](std::vector<std::uint16_t> colours) {
      for (std::uint16_t& colour : colours) {
        colour = static_cast<std::uint16_t>(colour * unit);
      }
      return colours;
    };
    source.colourMap = support::ColourMap{times({0, 10, 20, 255}), times({255, 90, 80, 0}), times({7, 8, 9, 10})};
    support::writeTiff(sandbox_.path("in.tif"), source);
    Raster expected(20, 10, 3, 8);
    for (std::size_t i = 0; i < 200; ++i) {
      const std::uint64_t index = source.raster.values[i];
      expected.values[3 * i] = source.colourMap->red[index] / static_cast<unsigned>(unit);
      expected.values[3 * i + 1] = source.colourMap->green[index] / static_cast<unsigned>(unit);
      expected.values[3 * i + 2] = source.colourMap->blue[index] / static_cast<unsigned>(unit);
    }
    Sharer sharer(sandbox_, {"scan", "in.tif"});
    EXPECT_EQ(difference(expected, attached("scan")), "");
  }
}

TEST_F(SharingTest, BlackIsZeroAndUpright) {
  for (const std::uint32_t bits : {1U, 8U}) {
    for (const unsigned orientation : {1U, 3U, 6U}) {
      SCOPED_TRACE(testing::Message() << bits << " bits, orientation " << orientation);
      const Raster upright = pattern(40, 24, 1, bits);
      Tiff source = tiffOf(storedAs(upright, orientation));
      for (std::uint64_t& value : source.raster.values) {
        value = upright.highest() - value;
      }
      source.photometric = PHOTOMETRIC_MINISWHITE;
      source.orientation = static_cast<std::uint16_t>(orientation);
      support::writeTiff(sandbox_.path("in.tif"), source);
      Sharer sharer(sandbox_, {"scan", "in.tif"});
      EXPECT_EQ(difference(upright, attached("scan")), "");
    }
  }
}

TEST_F(SharingTest, AlphaArrivesStraight) {
  Tiff source = tiffOf(Raster(3, 1, 4, 8));
  source.extras = {EXTRASAMPLE_ASSOCALPHA};
  source.raster.values = {100, 50, 0, 255, 100, 50, 0, 128, 0, 0, 0, 0};
  support::writeTiff(sandbox_.path("in.tif"), source);
  Sharer sharer(sandbox_, {"scan", "in.tif"});
  // 100 * 255 / 128 = 199.2 and 50 * 255 / 128 = 99.6
  EXPECT_THAT(attached("scan").values, ElementsAre(100, 50, 0, 255, 199, 100, 0, 128, 0, 0, 0, 0));
}

TEST_F(SharingTest, WidensAtEitherEnd) {
  const Raster source = pattern(37, 23, 1, 2);
  writePicture("in.png", source);
  {
    Sharer sharer(sandbox_, {"--to-8bit", "scan", "in.png"});
    EXPECT_EQ(difference(widened(source, 85), attached("scan")), "");
  }
  Sharer sharer(sandbox_, {"other", "in.png"});
  ASSERT_EQ(sandbox_.kvtile({"attach", "--to-8bit", "other", "wide.png"}).status, 0);
  EXPECT_EQ(difference(widened(source, 85), support::readPng(sandbox_.path("wide.png")).raster), "");
}

TEST_F(SharingTest, ANoteTellsWhatStaysBehind) {
  Tiff source = tiffOf(source_);
  source.resolution = {300, 300};
  source.unit = RESUNIT_INCH;
  source.icc = "a profile";
  support::writeTiff(sandbox_.path("in.tif"), source);
  Sharer sharer(sandbox_, {"scan", "in.tif"});
  const Tiff tiff = attachedTiff("scan");
  EXPECT_EQ(tiff.resolution, std::nullopt);
  EXPECT_EQ(tiff.icc, "");
  EXPECT_EQ(sharer.end().err,
            "kvtile: in.tif: not shared, as a shared image has pixels only: the resolution, the ICC profile\n");
}

TEST_F(SharingTest, ANoteTellsOfSamplesThatLoseTheirMeaning) {
  Tiff source = tiffOf(pattern(20, 10, 4, 8));
  source.photometric = PHOTOMETRIC_SEPARATED;
  source.extras = {};
  support::writeTiff(sandbox_.path("in.tif"), source);
  Sharer sharer(sandbox_, {"scan", "in.tif"});
  EXPECT_EQ(difference(source.raster, attachedTiff("scan").raster), "") << "the numbers are what they were";
  EXPECT_EQ(sharer.end().err,
            "kvtile: in.tif: a shared image does not tell what its samples mean: these (separated inks) will be taken "
            "for RGB + straight alpha\n");
}

// ---- How it goes

TEST_F(SharingTest, ALineTellsWhatIsSharedAndHowToGetIt) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scans/page-1", "in.png"});
  EXPECT_EQ(sharer.line(),
            "in.png is shared as scans/page-1 (60 x 40 pixels, 3 x 8 bits, unsigned) until a line or the end of "
            "standard input; get it with: kvtile attach scans/page-1 OUT");
  Sharer quoted(sandbox_, {"--until-stopped", "Ann's page", "in.png"});
  EXPECT_EQ(quoted.line(),
            "in.png is shared as 'Ann'\\''s page' (60 x 40 pixels, 3 x 8 bits, unsigned) until process " +
                std::to_string(quoted.process().id()) + " is ended; get it with: kvtile attach 'Ann'\\''s page' OUT");
  EXPECT_EQ(difference(source_, attached("Ann's page")), "");
}

TEST_F(SharingTest, SeveralProcessesAttachAtTheSameTime) {
  const Raster source = pattern(1000, 900, 3, 8);
  writePicture("in.png", source);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  std::vector<std::unique_ptr<Process>> others;
  for (const char* name : {"a.png", "b.png", "c.tif"}) {
    others.push_back(std::make_unique<Process>(std::vector<std::string>{sandbox_.program(), "attach", "scan", name},
                                               sandbox_.folder()));
  }
  for (const auto& other : others) {
    EXPECT_EQ(other->wait().status, 0);
  }
  EXPECT_EQ(difference(source, support::readPng(sandbox_.path("a.png")).raster), "");
  EXPECT_EQ(difference(source, support::readPng(sandbox_.path("b.png")).raster), "");
  EXPECT_EQ(difference(source, support::readTiff(sandbox_.path("c.tif")).raster), "");
  EXPECT_EQ(sharer.end().status, 0);
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, TheImageStaysWithThoseWhoHoldIt) {
  const Raster other = pattern(60, 40, 3, 8, 2);
  writePicture("in.png", source_);
  writePicture("other.png", other);
  Sharer first(sandbox_, {"scan", "in.png"});
  Sharer second(sandbox_, {"--force", "scan", "other.png"});
  EXPECT_EQ(difference(other, attached("scan")), "") << "the pixels of all who hold it";
  EXPECT_EQ(first.end().status, 0);
  EXPECT_EQ(difference(other, attached("scan")), "");
  EXPECT_EQ(second.end().status, 0);
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, ImagesOfSeveralIdentifiersAreApart) {
  const Raster other = pattern(60, 40, 3, 8, 2);
  writePicture("in.png", source_);
  writePicture("other.png", other);
  Sharer first(sandbox_, {"scan", "in.png"});
  Sharer second(sandbox_, {"scan/1", "other.png"});
  EXPECT_EQ(difference(source_, attached("scan")), "");
  EXPECT_EQ(difference(other, attached("scan/1")), "");
}

// ---- How it ends

TEST_F(SharingTest, EndsWithEnter) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  EXPECT_THAT(filesOfSharedImages(sandbox_), SizeIs(3)) << "a descriptor, a lock file and the only tile";
  const Result result = sharer.end();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, EndsWithEnterAtATerminal) {
  writePicture("in.png", source_);
  Terminal terminal;
  Process process({sandbox_.program(), "share", "scan", "in.png"}, sandbox_.folder(), terminal.slave(),
                  terminal.slave());
  EXPECT_THAT(process.firstLine(), HasSubstr(" until you press Enter; "));
  terminal.type("x");
  usleep(300000);
  EXPECT_TRUE(process.running());
  terminal.type("\r");
  EXPECT_EQ(process.wait().status, 0);
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, EndsWithStandardInput) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  sharer.closeInput();
  const Result result = sharer.process().wait();
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "kvtile: scan: standard input has ended, and the sharing with it; in scripts and in the background give "
            "--until-stopped\n");
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, EndsWithEveryRequestToStop) {
  writePicture("in.png", source_);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"scan", "in.png"}, {"--until-stopped", "scan", "in.png"}}) {
      Sharer sharer(sandbox_, arguments);
      sharer.process().send(signal);
      const Result result = sharer.process().wait();
      EXPECT_EQ(result.status, 0);
      EXPECT_EQ(result.err, "");
      EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
    }
  }
}

TEST_F(SharingTest, InputDoesNotEndWhatIsSharedUntilStopped) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"--until-stopped", "scan", "in.png"});
  sharer.pressEnter();
  sharer.closeInput();
  usleep(500000);
  EXPECT_TRUE(sharer.process().running());
  EXPECT_EQ(difference(source_, attached("scan")), "");
}

// On a busy machine the terminal's text can come so late that the picture is complete by then; standard input has ended
// already and ends it as well.
TEST_F(SharingTest, StoppedWhileItReadsItLeavesNothing) {
  constexpr int kAttempts = 8;
  writePicture("in.png", pattern(3600, 3600, 3, 16));
  Result result;
  std::vector<std::string> screen;
  for (int attempt = 0; attempt < kAttempts && result.status != 1; ++attempt) {
    Terminal terminal;
    Process process({sandbox_.program(), "share", "scan", "in.png"}, sandbox_.folder(), terminal.slave());
    ASSERT_TRUE(terminal.waitFor("reading"));
    process.send(SIGTERM);
    result = process.wait();
    screen = terminal.screen();
    EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
  }
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(screen,
              ElementsAre("kvtile: scan: interrupted before it was complete; run the command again to make it"));
}

TEST_F(SharingTest, AFailureLeavesNothing) {
  writePicture("in.png", pattern(300, 200, 3, 8));
  sandbox_.write("short.png", sandbox_.read("in.png").substr(0, 90000));
  EXPECT_THAT(failure({"share", "scan", "short.png"}), HasSubstr("kvtile: short.png: the pixels cannot be read"));
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
  const Result result = sandbox_.run({"sh", "-c", sandbox_.program() + " share scan in.png >/dev/full"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: standard output: cannot be written (No space left on device); check where it leads to\n");
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

// The library says first that there is no such image yet, which is not what went wrong.
TEST_F(SharingTest, AFailureToMakeFilesIsToldWithItsReason) {
  writePicture("in.png", source_);
  sandbox_.keepImagesIn("/dev/null/none");
  const std::string said = failure({"share", "scan", "in.png"});
  EXPECT_THAT(said, testing::StartsWith("kvtile: scan: the image cannot be shared ("));
  EXPECT_THAT(said, HasSubstr("/dev/null/none"));
}

// The next process of the program cleans up before it attaches.
TEST_F(SharingTest, WhatAKilledProcessLeavesIsRemoved) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  sharer.process().send(SIGKILL);
  sharer.process().wait();
  EXPECT_THAT(filesOfSharedImages(sandbox_), SizeIs(3));
  EXPECT_EQ(failure({"attach", "scan", "out.png"}),
            "kvtile: scan: was left by a process that is gone, and has been removed now; share it again\n");
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

// While the process that has cleaned up last is alive nobody else does.
TEST_F(SharingTest, WhatAKilledProcessLeavesCanBeAttachedToUntilTheNextCleanUp) {
  writePicture("in.png", source_);
  writePicture("other.png", pattern(5, 5, 1, 8));
  Sharer cleaner(sandbox_, {"other", "other.png"});
  Sharer sharer(sandbox_, {"scan", "in.png"});
  sharer.process().send(SIGKILL);
  sharer.process().wait();
  const Result result = sandbox_.kvtile({"attach", "scan", "out.png"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "kvtile: scan: no other process held it any more, so that it is gone now\n");
  EXPECT_EQ(difference(source_, support::readPng(sandbox_.path("out.png")).raster), "");
  EXPECT_EQ(cleaner.end().status, 0);
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, WhatAKilledProcessLeavesDoesNotTakeTheIdentifier) {
  const Raster other = pattern(50, 30, 1, 8);
  writePicture("in.png", source_);
  writePicture("other.png", other);
  Sharer killed(sandbox_, {"scan", "in.png"});
  killed.process().send(SIGKILL);
  killed.process().wait();
  Sharer sharer(sandbox_, {"scan", "other.png"});
  EXPECT_EQ(difference(other, attached("scan")), "");
  EXPECT_EQ(sharer.end().err, "");
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

// ---- What is refused

TEST_F(SharingTest, RefusesAnIdentifierThatIsInUse) {
  writePicture("in.png", source_);
  writePicture("other.png", pattern(60, 40, 3, 8, 2));
  writePicture("grey.png", pattern(60, 40, 1, 8));
  Sharer sharer(sandbox_, {"scan", "in.png"});
  EXPECT_EQ(
      failure({"share", "scan", "other.png"}),
      "kvtile: scan: is shared already (60 x 40 pixels, 3 x 8 bits, unsigned); choose another identifier, or give "
      "--force to replace the pixels for all who hold it\n");
  const std::string other =
      "kvtile: scan: is shared already (60 x 40 pixels, 3 x 8 bits, unsigned) by a process that still holds it; choose "
      "another identifier, or end that process first\n";
  EXPECT_EQ(failure({"share", "scan", "grey.png"}), other);
  EXPECT_EQ(failure({"share", "--force", "scan", "grey.png"}), other);
  EXPECT_EQ(difference(source_, attached("scan")), "") << "the picture is what it was";
}

TEST_F(SharingTest, RefusesIdentifiersThatAreNone) {
  writePicture("in.png", source_);
  const std::string rest = "; choose another identifier, such as scans/page-1\n";
  const std::pair<const char*, const char*> cases[] = {
      {"..", "an identifier must not have '..' between slashes"},
      {"a/../../b", "an identifier must not have '..' between slashes"},
      {"a\\..", "an identifier must not have '..' between slashes"},
      {"/abs", "an identifier must not begin with a slash, a backslash or a drive letter"},
      {"\\abs", "an identifier must not begin with a slash, a backslash or a drive letter"},
      {"c:abs", "an identifier must not begin with a slash, a backslash or a drive letter"}};
  for (const auto& [identifier, what] : cases) {
    const std::string said = std::string("kvtile: ") + identifier + ": " + what + rest;
    EXPECT_EQ(failure({"share", identifier, "in.png"}, 2), said);
    EXPECT_EQ(failure({"attach", identifier, "out.png"}, 2), said);
  }
  EXPECT_EQ(failure({"share", "", "in.png"}, 2), "kvtile: ID: the identifier is empty" + rest);
  EXPECT_EQ(failure({"attach", "", "out.png"}, 2), "kvtile: ID: the identifier is empty" + rest);
  EXPECT_THAT(failure({"share",
                       "b\xff"
                       "d",
                       "in.png"},
                      2),
              HasSubstr("the identifier is no UTF-8 text"));
  EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
}

TEST_F(SharingTest, IdentifiersMayHaveDotsAndLookLikeNumbers) {
  writePicture("in.png", source_);
  for (const std::string identifier : {"...", "a..b/c", "-5", "seite \xc3\xa4"}) {
    Sharer sharer(sandbox_, {identifier, "in.png"});
    EXPECT_EQ(difference(source_, attached(identifier)), "") << identifier;
  }
}

TEST_F(SharingTest, AttachTellsWhatIsMissing) {
  EXPECT_EQ(failure({"attach", "nothing", "out.png"}),
            "kvtile: nothing: no image is shared under this identifier; 'kvtile shared' lists those that are\n");
  EXPECT_THAT(failure({"attach", "nothing", "out.gif"}, 2), HasSubstr("its extension tells no format"));
  EXPECT_THAT(failure({"attach", "nothing"}, 2), HasSubstr("OUT is required; see 'kvtile attach --help'"));
  EXPECT_THAT(failure({"share", "scan"}, 2), HasSubstr("FILE is required; see 'kvtile share --help'"));
  EXPECT_THAT(failure({"share", "scan", "missing.png"}), HasSubstr("missing.png: there is no such file"));
}

TEST_F(SharingTest, AttachReplacesAnExistingFileOnlyIfForced) {
  writePicture("in.png", source_);
  sandbox_.write("out.png", "precious");
  Sharer sharer(sandbox_, {"scan", "in.png"});
  EXPECT_EQ(failure({"attach", "scan", "out.png"}),
            "kvtile: out.png: exists already; give --force to replace it, or choose another name\n");
  EXPECT_EQ(sandbox_.read("out.png"), "precious");
  EXPECT_EQ(sandbox_.kvtile({"attach", "--force", "scan", "out.png"}).status, 0);
  EXPECT_EQ(difference(source_, support::readPng(sandbox_.path("out.png")).raster), "");
}

TEST_F(SharingTest, AttachTellsWhatAFormatCannotHold) {
  Tiff source = tiffOf(support::floatPattern(9, 7, 1, 32));
  source.sampleFormat = SAMPLEFORMAT_IEEEFP;
  support::writeTiff(sandbox_.path("in.tif"), source);
  Sharer sharer(sandbox_, {"scan", "in.tif"});
  EXPECT_EQ(failure({"attach", "scan", "out.png"}),
            "kvtile: out.png: PNG cannot hold samples of this kind (1 x 32 bits, floating point); write a .tif "
            "instead\n");
}

TEST_F(SharingTest, AttachTellsOfImagesThatAreDamaged) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  const std::string tile = filesOfSharedImages(sandbox_).back();
  ASSERT_THAT(tile, EndsWith(".korvaneFileMapping"));
  std::filesystem::resize_file(sandbox_.folder() + tile, 4096);
  EXPECT_THAT(failure({"attach", "scan", "out.png"}),
              testing::AllOf(HasSubstr("kvtile: scan: the image cannot be attached to ("),
                             HasSubstr(" has 4096 bytes instead of "), EndsWith("; share it again\n")));
}

TEST_F(SharingTest, DescriptorsThatCannotBeReadAreTold) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  const std::string descriptor =
      support::dataFolderFor(sandbox_.folder()) + "/Korvane/KvTileImage/interprocessId/json/scan.json";
  std::ofstream(descriptor) << "{";
  EXPECT_EQ(failure({"attach", "scan", "out.png"}),
            "kvtile: scan: what is shared cannot be told from its descriptor (" + descriptor + "); share it again\n");
  for (const char* other : {"--force", "--quiet"}) {
    EXPECT_EQ(failure({"share", other, "scan", "in.png"}),
              "kvtile: scan: is in use by another process, and its descriptor cannot be read; choose another "
              "identifier\n");
  }
}

TEST_F(SharingTest, AttachTellsOfSamplesThatNoFileHolds) {
  writePicture("in.png", source_);
  Sharer sharer(sandbox_, {"scan", "in.png"});
  const std::string descriptor =
      support::dataFolderFor(sandbox_.folder()) + "/Korvane/KvTileImage/interprocessId/json/scan.json";
  std::ofstream(descriptor) << R"({"desc": {"interprocessTileImageInfo": {"width": 5, "height": 4, )"
                            << R"("samplesPerPixel": 3, "bitsPerSample": 12, "sampleformat": 1}}})";
  EXPECT_EQ(failure({"attach", "scan", "out.tif"}),
            "kvtile: scan: its samples (3 x 12 bits, unsigned) fit neither PNG nor TIFF; have it shared with 8 or 16 "
            "bits\n");
}

}  // namespace
