// What the program says and returns for command lines right and wrong.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>

#include "support/moves.h"
#include "support/pngs.h"
#include "support/sandbox.h"

namespace {

using support::pattern;
using support::Raster;
using support::Result;
using support::Sandbox;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() { support::writePng(sandbox_.path("in.png"), support::pngOf(source_)); }

  // Wrong usage: status 2, one line, nothing made.
  std::string wrongUsage(const std::vector<std::string>& arguments) {
    const Result result = sandbox_.kvtile(arguments);
    EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_THAT(result.err, AllOf(StartsWith("kvtile: "), EndsWith("\n")));
    EXPECT_THAT(sandbox_.names(), testing::ElementsAre("in.png"));
    return result.err;
  }

  // `arguments` make out.png, which shows `expected`.
  void expectMade(const std::vector<std::string>& arguments, const Raster& expected) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const Result result = sandbox_.kvtile(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(difference(expected, support::readPng(sandbox_.path("out.png")).raster), "");
    ASSERT_EQ(std::remove(sandbox_.path("out.png").c_str()), 0);
  }

  Sandbox sandbox_;
  Raster source_ = pattern(12, 7, 3, 8);
};

TEST_F(CommandLineTest, TakesEveryMultipleOf90) {
  expectMade({"rotate", "0", "in.png", "out.png"}, source_);
  expectMade({"rotate", "360", "in.png", "out.png"}, source_);
  expectMade({"rotate", "-360", "in.png", "out.png"}, source_);
  expectMade({"rotate", "90", "in.png", "out.png"}, rotated90(source_));
  expectMade({"rotate", "+90", "in.png", "out.png"}, rotated90(source_));
  expectMade({"rotate", "-270", "in.png", "out.png"}, rotated90(source_));
  expectMade({"rotate", "450", "in.png", "out.png"}, rotated90(source_));
  expectMade({"rotate", "-180", "in.png", "out.png"}, rotated180(source_));
  expectMade({"rotate", "-90", "in.png", "out.png"}, rotated270(source_));
  expectMade({"rotate", "--", "-90", "in.png", "out.png"}, rotated270(source_));
  expectMade({"rotate", "36000000000000000000000000000000270", "in.png", "out.png"}, rotated270(source_));
}

TEST_F(CommandLineTest, TakesOptionsInEveryPlace) {
  const Raster turned = rotated90(source_);
  expectMade({"rotate", "90", "in.png", "out.png", "--force", "--budget", "64M"}, turned);
  expectMade({"rotate", "--force", "--budget", "64M", "90", "in.png", "out.png"}, turned);
  expectMade({"--force", "--budget", "64M", "rotate", "90", "in.png", "out.png"}, turned);
  expectMade({"rotate", "90", "--budget=2g", "in.png", "--quiet", "out.png"}, turned);
  expectMade({"rotate", "-q", "90", "in.png", "out.png", "-f"}, turned);
}

TEST_F(CommandLineTest, TakesNamesThatLookLikeNumbers) {
  support::writePng(sandbox_.path("-5.png"), support::pngOf(source_));
  const Result result = sandbox_.kvtile({"rotate", "-90", "-5.png", "-6.png"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(difference(rotated270(source_), support::readPng(sandbox_.path("-6.png")).raster), "");
}

TEST_F(CommandLineTest, TakesExtensionsInAnyCase) {
  for (const char* name : {"OUT.PNG", "out.Tif", "out.TIFF"}) {
    EXPECT_EQ(sandbox_.kvtile({"convert", "in.png", name}).status, 0) << name;
    EXPECT_EQ(sandbox_.differingPixels("in.png", name), 0);
  }
}

TEST_F(CommandLineTest, RefusesOtherAngles) {
  for (const std::string angle : {"45", "-91", "ninety", "90.0", "", "-", "0x5a", "9 0"}) {
    EXPECT_EQ(wrongUsage({"rotate", angle, "in.png", "out.png"})
                  .find("kvtile: ANGLE: '" + angle +
                        "' is no angle: "
                        "allowed are whole multiples of 90"),
              0U)
        << angle;
  }
}

TEST_F(CommandLineTest, RefusesOtherSizes) {
  for (const std::string size : {"", "0", "M", "12X", "1.5G", "-5", "99999999999999999999", "99999999999T", "1GG"}) {
    EXPECT_THAT(wrongUsage({"rotate", "90", "in.png", "out.png", "--budget=" + size}), HasSubstr("--budget"));
  }
}

TEST_F(CommandLineTest, RefusesOtherNumbersOfPixels) {
  for (const char* side : {"--width", "--height"}) {
    for (const std::string pixels : {"0", "00", "-5", "4294967296", "99999999999999999999999", "1.5", "2K", "wide"}) {
      const std::string refused = std::string("kvtile: ") + side + ": '" + pixels +
                                  "' is no number of pixels: allowed are 1 to 4294967295; see 'kvtile resize --help'\n";
      EXPECT_EQ(wrongUsage({"resize", side, pixels, "in.png", "out.png"}), refused);
    }
    EXPECT_THAT(wrongUsage({"resize", "in.png", "out.png", side}), HasSubstr(side));
    EXPECT_THAT(wrongUsage({"rotate", "90", side, "5", "in.png", "out.png"}), HasSubstr(side));
  }
  EXPECT_EQ(wrongUsage({"resize", "in.png", "out.png"}),
            "kvtile: --width, --height, --scale or --crop is required; see 'kvtile resize --help'\n");
}

TEST_F(CommandLineTest, RefusesOtherScalesPartsFiltersAndThreads) {
  const auto refuses = [this](const char* option, std::initializer_list<std::string> values, const char* rest) {
    for (const std::string& value : values) {
      const std::string said =
          std::string("kvtile: ") + option + ": '" + value + "' is no " + rest + "; see 'kvtile resize --help'\n";
      EXPECT_EQ(wrongUsage({"resize", "--width", "5", option, value, "in.png", "out.png"}), said);
    }
  };
  refuses("--scale", {"0", "-1", "-0.5", "nan", "inf", "1e999", "50%", "1/2", "x"},
          "scale: allowed are numbers above 0, such as 0.5");
  refuses("--crop",
          {"1", "1,2,3", "1,2,3,4,5", "1,2,3,", ",2,3,4", "1,2,0,4", "1,2,3,0", "-1,2,3,4", "1.5,2,3,4", "1, 2, 3, 4",
           "1,2,3,4294967296"},
          "area: allowed are left, top, width and height in pixels, such as 0,0,800,600");
  refuses("--filter", {"lanczos", "Box", "0", "nearest"},
          "filter: allowed are box, bicubic, bilinear, bspline, catmull-rom and lanczos3");
  refuses("--threads", {"0", "257", "-2", "two", "1.5"}, "number of threads: allowed are 1 to 256");
  EXPECT_EQ(wrongUsage({"resize", "--width", "5", "--scale", "2", "in.png", "out.png"}),
            "kvtile: --scale excludes --width; see 'kvtile resize --help'\n");
  EXPECT_EQ(wrongUsage({"resize", "--scale", "2", "--height", "5", "in.png", "out.png"}),
            "kvtile: --scale excludes --height; see 'kvtile resize --help'\n");
}

TEST_F(CommandLineTest, RefusesOtherToneCurves) {
  const auto refused = [](const char* option, const std::string& value, const char* kind, const char* allowed) {
    return std::string("kvtile: ") + option + ": '" + value + "' is no " + kind + ": allowed are " + allowed +
           "; see 'kvtile tone --help'\n";
  };
  const auto given = [this](const char* option, const std::string& value) {
    return wrongUsage({"tone", option, value, "in.png", "out.png"});
  };
  for (const std::string value : {"0", "-1", "0.019", "nan", "inf", "1e999", "two", "2,2", "2x", "+2", "--"}) {
    EXPECT_EQ(given("--gamma", value), refused("--gamma", value, "gamma", "numbers from 0.02 on, such as 2.2"));
  }
  for (const std::string value : {"1.01", "-1.01", "-2", "nan", "-inf", "bright", "0x1"}) {
    EXPECT_EQ(given("--brightness", value),
              refused("--brightness", value, "brightness", "numbers from -1 to 1, such as 0.25"));
    EXPECT_EQ(given("--contrast", value),
              refused("--contrast", value, "contrast", "numbers from -1 to 1, such as 0.25"));
  }
  for (const std::string value : {"-1", "65536", "1.5", "1K", "half"}) {
    EXPECT_EQ(given("--threshold", value),
              refused("--threshold", value, "threshold", "0 to 255, or 0 to 65535 for 16-bit samples"));
  }
  for (const std::string value : {"-1", "65535", "red", "0,1"}) {
    EXPECT_EQ(wrongUsage({"tone", "--invert", "--channel", value, "in.png", "out.png"}),
              refused("--channel", value, "channel", "0 to 65534"));
  }
  const std::string none =
      "kvtile: --gamma, --brightness, --contrast, --invert, --threshold or --curve is required; "
      "see 'kvtile tone --help'\n";
  EXPECT_EQ(wrongUsage({"tone", "in.png", "out.png"}), none);
  EXPECT_EQ(wrongUsage({"tone", "--channel", "1", "in.png", "out.png"}), none);
  EXPECT_THAT(wrongUsage({"tone", "in.png", "out.png", "--gamma"}), HasSubstr("--gamma"));
  EXPECT_THAT(wrongUsage({"tone", "--invert=false", "in.png", "out.png"}), HasSubstr("invert"));
  EXPECT_THAT(wrongUsage({"rotate", "90", "--gamma", "2", "in.png", "out.png"}), HasSubstr("--gamma"));
  EXPECT_EQ(wrongUsage({"histogram", "--gamma", "0", "in.png", "out.png"}),
            "kvtile: --gamma: '0' is no gamma: allowed are numbers from 0.02 on, such as 2.2; "
            "see 'kvtile histogram --help'\n");
}

TEST_F(CommandLineTest, StatsTellOfPlaceMemoryAndTime) {
  const std::string numbers = "peak memory [0-9]+\\.[0-9] MB, [0-9]+\\.[0-9] s\n";
  const auto line = [this](std::vector<std::string> command) {
    command.insert(command.end(), {"--stats", "--force", "in.png", "out.png"});
    const Result result = sandbox_.kvtile(command);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    return result.err;
  };
  const std::string image = "kvtile: stats: image kept in memory, ";
  const std::string copy = "its turned copy in memory, ";
  EXPECT_THAT(line({"convert"}), MatchesRegex(image + numbers));
  EXPECT_THAT(line({"resize", "--width", "5"}), MatchesRegex(image + numbers));
  EXPECT_THAT(line({"tone", "--gamma", "2"}), MatchesRegex(image + numbers));
  EXPECT_THAT(line({"histogram"}), MatchesRegex(image + numbers));
  EXPECT_THAT(line({"rotate", "360"}), MatchesRegex(image + numbers));
  EXPECT_THAT(line({"rotate", "90"}), MatchesRegex(image + copy + numbers));
  EXPECT_THAT(line({"mirror", "vertical", "--quiet"}), MatchesRegex(image + copy + numbers));
}

TEST_F(CommandLineTest, StatsAreForWorkThatIsDone) {
  sandbox_.write("bad.png", sandbox_.read("in.png").substr(0, 100));
  const Result result = sandbox_.kvtile({"convert", "--stats", "bad.png", "out.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, Not(HasSubstr("stats")));
}

TEST_F(CommandLineTest, RefusesOtherStorages) {
  for (const std::string storage : {"disk", "files", "Memory", "-1"}) {
    EXPECT_THAT(wrongUsage({"convert", "in.png", "out.png", "--storage=" + storage}),
                HasSubstr("--storage: '" + storage + "' is no storage: allowed are auto, memory and file"));
  }
  EXPECT_THAT(wrongUsage({"convert", "in.png", "out.png", "--storage="}), HasSubstr("--storage"));
}

TEST_F(CommandLineTest, RefusesWhatIsMissingOrTooMuch) {
  EXPECT_THAT(wrongUsage({"bogus"}), HasSubstr("'bogus' is no command"));
  EXPECT_THAT(wrongUsage({"--bogus"}), HasSubstr("no option --bogus"));
  EXPECT_THAT(wrongUsage({"info"}), HasSubstr("FILE is required"));
  EXPECT_THAT(wrongUsage({"convert", "in.png"}), HasSubstr("OUT is required; see 'kvtile convert --help'"));
  EXPECT_THAT(wrongUsage({"rotate", "90", "in.png", "out.png", "more"}), HasSubstr("more"));
  EXPECT_THAT(wrongUsage({"rotate", "90", "--bogus", "in.png", "out.png"}), HasSubstr("--bogus"));
  EXPECT_THAT(wrongUsage({"mirror", "sideways", "in.png", "out.png"}),
              HasSubstr("'sideways' is no direction: allowed are horizontal and vertical"));
}

TEST_F(CommandLineTest, RefusesUnknownExtensions) {
  for (const std::string name : {"out.gif", "out", "out.png.gz", ".png"}) {
    EXPECT_EQ(wrongUsage({"convert", "in.png", name}),
              "kvtile: " + name + ": its extension tells no format; end the name in .png, .tif or .tiff\n");
  }
}

TEST_F(CommandLineTest, ShowsItsHelpWhenCalledWithoutAnything) {
  const Result result = sandbox_.kvtile({});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(result.err, HasSubstr("Usage: kvtile"));
}

TEST_F(CommandLineTest, HelpNamesEveryOptionAndGivesExamples) {
  const Result all = sandbox_.kvtile({"--help"});
  EXPECT_EQ(all.status, 0);
  EXPECT_EQ(all.err, "");
  for (const char* word :
       {"info", "convert", "rotate", "mirror", "resize", "tone", "histogram", "share", "attach", "shared", "--budget",
        "--storage", "--stats", "--verbose", "--quiet", "--force", "--to-8bit", "--version", "Examples:"}) {
    EXPECT_THAT(all.out, HasSubstr(word));
  }
  for (const char* command : {"convert", "rotate", "mirror", "resize", "tone", "histogram"}) {
    const Result one = sandbox_.kvtile({command, "--help"});
    EXPECT_EQ(one.status, 0);
    for (const char* word : {"--budget", "--storage", "--stats", "--force", "--to-8bit", "Examples:", "IN", "OUT"}) {
      EXPECT_THAT(one.out, HasSubstr(word)) << command;
    }
  }
  const std::string resize = sandbox_.kvtile({"resize", "--help"}).out;
  for (const char* word :
       {"--width N", "--height N", "--scale F", "--crop X,Y,W,H", "--filter NAME", "--threads N",
        "lanczos3 (as without it), catmull-rom, bicubic, bilinear, bspline or box", "resolution (dpi) stays"}) {
    EXPECT_THAT(resize, HasSubstr(word));
  }
  const std::string tone = sandbox_.kvtile({"tone", "--help"}).out;
  const std::string histogram = sandbox_.kvtile({"histogram", "--help"}).out;
  for (const char* word :
       {"--gamma G", "--brightness B", "--contrast C", "--invert", "--threshold T", "--curve FILE", "--channel N"}) {
    EXPECT_THAT(tone, HasSubstr(word));
    EXPECT_THAT(histogram, HasSubstr(word));
  }
  EXPECT_THAT(tone, AllOf(HasSubstr("in the order in which they are given"), HasSubstr("control points")));
  EXPECT_THAT(sandbox_.kvtile({"info", "--help"}).out, HasSubstr("kvtile info scan.tif"));
  const std::string share = sandbox_.kvtile({"share", "--help"}).out;
  for (const char* word : {"ID", "FILE", "--until-stopped", "--force", "--to-8bit", "kvtile share scan scan.tif",
                           "resolution (dpi)", "are not shared"}) {
    EXPECT_THAT(share, HasSubstr(word));
  }
  const std::string attach = sandbox_.kvtile({"attach", "--help"}).out;
  for (const char* word : {"ID", "OUT", "--force", "--to-8bit", "kvtile attach scan copy.png", "no colour profile"}) {
    EXPECT_THAT(attach, HasSubstr(word));
  }
  EXPECT_THAT(sandbox_.kvtile({"shared", "--help"}).out, HasSubstr("Listing changes\nnothing."));
}

TEST_F(CommandLineTest, VersionNamesTheLibrarys) {
  const Result result = sandbox_.kvtile({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "kvtile 2.0.15 (KvTileImage 2.0.15)\n");
}

TEST_F(CommandLineTest, VerboseShowsWhatTheLibrarySaysAndQuietDoesNot) {
  const Result verbose = sandbox_.kvtile({"rotate", "90", "in.png", "out.png", "--verbose"});
  EXPECT_EQ(verbose.status, 0);
  EXPECT_THAT(verbose.err, HasSubstr("KvTileImage: "));
  const Result plain = sandbox_.kvtile({"rotate", "90", "in.png", "out.png", "--force"});
  EXPECT_EQ(plain.err, "");
}

TEST_F(CommandLineTest, NamesTheBudgetThatWouldDo) {
  // 40000 x 400 pixels of 8 bits: 128 million bits, 16 MB; with a turned copy 144 million.
  support::writePng(sandbox_.path("big.png"), support::pngOf(Raster(40000, 400, 1, 8)));
  Result result = sandbox_.kvtile({"convert", "--storage", "memory", "--budget", "64M", "big.png", "out.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: big.png: the image needs 16 MB of memory; "
            "run again with --budget 128M, or with --storage file\n");
  result = sandbox_.kvtile({"rotate", "90", "--storage", "memory", "--budget", "128M", "big.png", "out.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: big.png: the image and its copy need 32 MB of memory; "
            "run again with --budget 192M, or with --storage file\n");
  EXPECT_THAT(sandbox_.names(), testing::ElementsAre("big.png", "in.png"));
  const auto inMemory = [this](std::vector<std::string> command, const char* budget, const char* output) {
    command.insert(command.end(), {"--storage", "memory", "--budget", budget, "big.png", output});
    return sandbox_.kvtile(command).status;
  };
  EXPECT_EQ(inMemory({"convert"}, "128M", "out.png"), 0);
  EXPECT_EQ(inMemory({"rotate", "90"}, "192M", "turned.png"), 0);
  EXPECT_EQ(inMemory({"rotate", "360"}, "128M", "whole.png"), 0) << "without a turn there is no second image";
}

}  // namespace
