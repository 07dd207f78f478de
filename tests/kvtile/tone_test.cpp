// Tone curves, against formulas and tables of the tests' own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/terminal.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::pattern;
using support::Png;
using support::Process;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Terminal;
using support::Tiff;
using testing::ElementsAre;
using testing::HasSubstr;

// ---- The model

// An output for each input of 8 or 16 bits.
using Curve = std::vector<std::uint64_t>;

Curve curveOf(std::uint32_t bits, const std::function<long double(long double value, long double highest)>& formula) {
  const std::uint64_t highest = (std::uint64_t{1} << bits) - 1;
  Curve curve;
  for (std::uint64_t value = 0; value <= highest; ++value) {
    const auto scale = static_cast<long double>(highest);
    const long double output = std::clamp(formula(static_cast<long double>(value), scale), 0.0L, scale);
    curve.push_back(static_cast<std::uint64_t>(std::floor(output + 0.5L)));
  }
  return curve;
}

long double contrasted(long double value, long double highest, long double contrast) {
  const long double middle = (highest + 1) / 2;
  return std::clamp((value - middle) * (1 + contrast) + middle, 0.0L, highest);
}

long double brightened(long double value, long double highest, long double brightness) {
  return std::clamp(value * (1 + brightness), 0.0L, highest);
}

long double gammaed(long double value, long double highest, long double gamma) {
  return highest * std::pow(value / highest, 1 / gamma);
}

Curve contrast(std::uint32_t bits, long double amount) {
  return curveOf(bits, [amount](long double value, long double highest) { return contrasted(value, highest, amount); });
}

Curve brightness(std::uint32_t bits, long double amount) {
  return curveOf(bits, [amount](long double value, long double highest) { return brightened(value, highest, amount); });
}

Curve gamma(std::uint32_t bits, long double amount) {
  return curveOf(bits, [amount](long double value, long double highest) { return gammaed(value, highest, amount); });
}

Curve inversion(std::uint32_t bits) {
  return curveOf(bits, [](long double value, long double highest) { return highest - value; });
}

Curve threshold(std::uint32_t bits, long double lowest) {
  return curveOf(bits, [lowest](long double value, long double highest) { return value < lowest ? 0 : highest; });
}

// `second` after what `first` has rounded.
Curve chain(const Curve& first, const Curve& second) {
  Curve curve;
  for (const std::uint64_t value : first) {
    curve.push_back(second[value]);
  }
  return curve;
}

// For samples that count down from white.
Curve upsideDown(const Curve& curve) {
  const std::uint64_t highest = curve.size() - 1;
  Curve result(curve.size());
  for (std::uint64_t value = 0; value <= highest; ++value) {
    result[highest - value] = highest - curve[value];
  }
  return result;
}

// The raster with the samples of these numbers changed.
Raster toned(Raster raster, const Curve& curve, const std::vector<std::uint32_t>& channels) {
  for (std::size_t i = 0; i < raster.values.size(); ++i) {
    if (std::find(channels.begin(), channels.end(), i % raster.samples) != channels.end()) {
      raster.values[i] = curve[raster.values[i]];
    }
  }
  return raster;
}

// One sample a pixel, every value once.
Raster everyValue(std::uint32_t bits) {
  const std::uint32_t side = 1U << (bits / 2);
  Raster raster(side, side, 1, bits);
  for (std::size_t i = 0; i < raster.values.size(); ++i) {
    raster.values[i] = i;
  }
  return raster;
}

// ---- Helpers

std::vector<std::string> toneCommand(std::vector<std::string> options, const char* in, const char* out) {
  options.insert(options.begin(), "tone");
  options.insert(options.end(), {"--force", in, out});
  return options;
}

class ToneTest : public testing::Test {
 protected:
  // What the options make of every value of a grey picture of `bits` bits.
  Curve made(const std::vector<std::string>& options, std::uint32_t bits) {
    support::writePng(sandbox_.path("ramp.png"), support::pngOf(everyValue(bits)));
    const Result result = sandbox_.kvtile(toneCommand(options, "ramp.png", "toned.png"));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    return support::readPng(sandbox_.path("toned.png")).raster.values;
  }

  // The line that a command for `in` ends with, which makes nothing. `status`: its exit status.
  std::string refusal(const std::vector<std::string>& options, const std::string& in, int status = 1) {
    std::vector<std::string> command = {"tone", in, "refused.tif"};
    command.insert(command.end(), options.begin(), options.end());
    const Result result = sandbox_.kvtile(command);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    for (const std::string& name : sandbox_.names()) {
      EXPECT_EQ(name.find("refused"), std::string::npos) << name;
    }
    return result.err;
  }

  Raster tonedPng(const std::vector<std::string>& options) {
    const Result result = sandbox_.kvtile(toneCommand(options, "in.png", "out.png"));
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return support::readPng(sandbox_.path("out.png")).raster;
  }

  Tiff tonedTiff(const std::vector<std::string>& options) {
    const Result result = sandbox_.kvtile(toneCommand(options, "in.tif", "out.tif"));
    EXPECT_EQ(result.status, 0) << result.err;
    notes_ = result.err;
    return support::readTiff(sandbox_.path("out.tif"));
  }

  Sandbox sandbox_;
  std::string notes_;
};

// ---- Curves

TEST_F(ToneTest, EachOptionIsItsFormula) {
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    EXPECT_EQ(made({"--gamma", "2.2"}, bits), gamma(bits, 2.2L));
    EXPECT_EQ(made({"--gamma", ".45"}, bits), gamma(bits, 0.45L));
    EXPECT_EQ(made({"--gamma", "1"}, bits), everyValue(bits).values);
    EXPECT_EQ(made({"--gamma=1e6"}, bits), gamma(bits, 1e6L));
    EXPECT_EQ(made({"--brightness", "0.25"}, bits), brightness(bits, 0.25L));
    EXPECT_EQ(made({"--brightness", "-0.25"}, bits), brightness(bits, -0.25L));
    EXPECT_EQ(made({"--brightness", "-.5"}, bits), brightness(bits, -0.5L));
    EXPECT_EQ(made({"--brightness", "-1"}, bits), Curve(everyValue(bits).values.size(), 0));
    EXPECT_EQ(made({"--contrast", "0.5"}, bits), contrast(bits, 0.5L)) << "both sides of the middle";
    EXPECT_EQ(made({"--contrast", "-0.75"}, bits), contrast(bits, -0.75L));
    EXPECT_EQ(made({"--contrast", "0"}, bits), everyValue(bits).values);
    EXPECT_EQ(made({"--contrast=-1"}, bits), contrast(bits, -1));
    EXPECT_EQ(made({"--invert"}, bits), inversion(bits));
    EXPECT_EQ(made({"--threshold", "100"}, bits), threshold(bits, 100));
    EXPECT_EQ(made({"--threshold", "0"}, bits), threshold(bits, 0)) << "nothing is below";
    EXPECT_EQ(made({"--threshold", std::to_string((1U << bits) - 1)}, bits), threshold(bits, (1U << bits) - 1));
  }
}

TEST_F(ToneTest, TheSmallestGammaLeavesBlackAndWhite) {
  for (const std::uint32_t bits : {8U, 16U}) {
    EXPECT_EQ(made({"--gamma", "0.02"}, bits), gamma(bits, 0.02L));
  }
}

TEST_F(ToneTest, OptionsAreAppliedInTheirOrder) {
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    const Curve first = chain(gamma(bits, 2), threshold(bits, 100));
    const Curve second = chain(threshold(bits, 100), gamma(bits, 2));
    ASSERT_NE(first, second);
    EXPECT_EQ(made({"--gamma", "2", "--threshold", "100"}, bits), first);
    EXPECT_EQ(made({"--threshold", "100", "--gamma", "2"}, bits), second);
    EXPECT_EQ(made({"--invert", "--brightness", "0.25"}, bits), chain(inversion(bits), brightness(bits, 0.25L)));
    EXPECT_EQ(made({"--invert", "--threshold", "9", "--invert"}, bits),
              chain(chain(inversion(bits), threshold(bits, 9)), inversion(bits)));
    EXPECT_EQ(made({"--invert", "--invert"}, bits), everyValue(bits).values);
  }
}

TEST_F(ToneTest, OptionsInTheLibrarysOrderAreRoundedOnce) {
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    const Curve together = curveOf(bits, [](long double value, long double highest) {
      return gammaed(brightened(contrasted(value, highest, 0.3L), highest, -0.4L), highest, 1.7L);
    });
    const Curve apart = chain(chain(contrast(bits, 0.3L), brightness(bits, -0.4L)), gamma(bits, 1.7L));
    ASSERT_NE(together, apart);
    EXPECT_EQ(made({"--contrast", "0.3", "--brightness", "-0.4", "--gamma", "1.7"}, bits), together);
    EXPECT_EQ(made({"--contrast", "0.3", "--brightness", "-0.4", "--gamma", "1.7", "--invert"}, bits),
              chain(together, inversion(bits)));
    const Curve two = curveOf(bits, [](long double value, long double highest) {
      return gammaed(contrasted(value, highest, 0.3L), highest, 1.7L);
    });
    EXPECT_EQ(made({"--contrast", "0.3", "--gamma", "1.7"}, bits), two);
  }
}

TEST_F(ToneTest, OtherOrdersAndRepetitionsAreRoundedInBetween) {
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    const Curve apart = chain(gamma(bits, 1.7L), contrast(bits, 0.3L));
    ASSERT_NE(apart, curveOf(bits, [](long double value, long double highest) {
                return contrasted(gammaed(value, highest, 1.7L), highest, 0.3L);
              }));
    EXPECT_EQ(made({"--gamma", "1.7", "--contrast", "0.3"}, bits), apart);
    const Curve backAndForth = chain(gamma(bits, 2), gamma(bits, 0.5L));
    ASSERT_NE(backAndForth, everyValue(bits).values);
    EXPECT_EQ(made({"--gamma", "2", "--gamma", "0.5"}, bits), backAndForth);
    EXPECT_EQ(made({"--brightness", "-0.5", "--threshold", "3", "--gamma", "2"}, bits),
              chain(chain(brightness(bits, -0.5L), threshold(bits, 3)), gamma(bits, 2)));
  }
}

// ---- Curve files

TEST_F(ToneTest, ControlPointsAreJoinedByStraightLines) {
  sandbox_.write("curve.txt",
                 "# lifts the shadows\r\n\n0.25\t0.5 # one\n   \n 0.5 0.625\n0.75 0.25\r\n"
                 "# \xc3\xbc and the end");
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    const Curve expected = curveOf(bits, [](long double value, long double highest) {
      const long double x = value / highest;
      if (x <= 0.25L) {
        return 0.5L * highest;
      }
      if (x <= 0.5L) {
        return (0.5L + (x - 0.25L) * 0.5L) * highest;
      }
      return (x <= 0.75L ? 0.625L - (x - 0.5L) * 1.5L : 0.25L) * highest;
    });
    EXPECT_EQ(made({"--curve", "curve.txt"}, bits), expected);
    EXPECT_EQ(made({"--invert", "--curve", "curve.txt", "--gamma", "2"}, bits),
              chain(chain(inversion(bits), expected), gamma(bits, 2)));
  }
}

TEST_F(ToneTest, EntriesOfControlPointsAreRoundedHalfUp) {
  // Half of each odd value lies between two numbers.
  sandbox_.write("half.txt", "0 0\n1 0.5\n");
  Curve half;
  for (std::uint64_t value = 0; value < 256; ++value) {
    half.push_back((value + 1) / 2);
  }
  EXPECT_EQ(made({"--curve", "half.txt"}, 8), half);
  sandbox_.write("same.txt",
                 "\xef\xbb\xbf"
                 "0 0\n1 1");
  EXPECT_EQ(made({"--curve", "same.txt"}, 16), everyValue(16).values);
  sandbox_.write("down.txt", "0 1\n1 0\n");
  EXPECT_EQ(made({"--curve", "down.txt"}, 16), inversion(16));
  sandbox_.write("flat.txt", "0.5 0.1\n0.6 0.1\n");
  EXPECT_EQ(made({"--curve", "flat.txt"}, 8), Curve(256, 26)) << "25.5";
}

TEST_F(ToneTest, TablesAreTakenAsTheyAre) {
  std::string bytes;
  std::string words;
  Curve eight;
  Curve sixteen;
  for (std::uint32_t value = 0; value < 65536; ++value) {
    const std::uint32_t entry = (value * 40503 + 17) % 65536;
    sixteen.push_back(entry);
    words += static_cast<char>(entry % 256);
    words += static_cast<char>(entry / 256);
    if (value < 256) {
      eight.push_back(value * 77 % 256);
      bytes += static_cast<char>(value * 77 % 256);
    }
  }
  sandbox_.write("8.lut", bytes);
  sandbox_.write("16.lut", words);
  EXPECT_EQ(made({"--curve", "8.lut"}, 8), eight);
  EXPECT_EQ(made({"--curve", "16.lut"}, 16), sixteen);
  EXPECT_EQ(made({"--curve", "8.lut", "--curve", "8.lut"}, 8), chain(eight, eight));
}

TEST_F(ToneTest, CurveFilesThatAreNoneAreRefused) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(5, 4, 1, 8)));
  support::writePng(sandbox_.path("deep.png"), support::pngOf(pattern(5, 4, 1, 16)));
  const std::string noPoint = " is no control point; write 'input output', two numbers from 0 to 1\n";
  const std::string more = "; give it two or more; in each line write 'input output', two numbers from 0 to 1\n";
  const std::pair<std::string, std::string> texts[] = {
      {"0 0\n0.5\n1 1\n", "line 2" + noPoint},
      {"0 0\n\n# no\n0.5 0.5 0.5\n1 1\n", "line 4" + noPoint},
      {"0 0\n1.5 1\n", "line 2" + noPoint},
      {"0 0\n0.5 -0.1\n", "line 2" + noPoint},
      {"0,5 1\n1 1\n", "line 1" + noPoint},
      {"nan 0\n1 inf\n", "line 1" + noPoint},
      {"0 0\n1 1x\n", "line 2" + noPoint},
      {"0 0\r\n0.5 1\r\n0.5 0.5\r\n",
       "line 3 has an input that is not above the one before; list the points by ascending inputs\n"},
      {"1 1\n0 0\n", "line 2 has an input that is not above the one before; list the points by ascending inputs\n"},
      {"", "holds no control points" + more},
      {"# 0 0\n", "holds no control points" + more},
      {"0.5 0.5", "holds one control point only" + more}};
  for (const auto& [text, message] : texts) {
    sandbox_.write("curve.txt", text);
    EXPECT_EQ(refusal({"--curve", "curve.txt"}, "in.png"), "kvtile: curve.txt: " + message) << text;
  }
  const std::string advice = "; give a table of that size, or a text of control points\n";
  sandbox_.write("table", std::string(255, '\0'));
  EXPECT_EQ(refusal({"--curve", "table"}, "in.png"),
            "kvtile: table: is no text, and as a table for samples of 8 bits it should have 256 bytes instead of 255" +
                advice);
  sandbox_.write("table", std::string(256, '\0'));
  EXPECT_EQ(refusal({"--curve", "table"}, "deep.png"),
            "kvtile: table: is no text, and as a table for samples of 16 bits it should have 131072 bytes instead of "
            "256" +
                advice);
  EXPECT_EQ(refusal({"--curve", "none.txt"}, "in.png"), "kvtile: none.txt: there is no such file; check the name\n");
  EXPECT_EQ(refusal({"--curve", "."}, "in.png"), "kvtile: .: is a folder; name a file in it\n");
  ASSERT_EQ(sandbox_.run({"truncate", "--size=3G", "huge"}).status, 0);
  EXPECT_EQ(refusal({"--curve", "huge"}, "in.png"),
            "kvtile: huge: is too large for a tone curve (3221225472 bytes); "
            "name a text of control points or a table\n");
}

// ---- Samples

TEST_F(ToneTest, AlphaStaysAndColoursChange) {
  for (const std::uint32_t bits : {8U, 16U}) {
    for (const std::uint32_t samples : {1U, 2U, 3U, 4U}) {
      SCOPED_TRACE(std::to_string(samples) + " x " + std::to_string(bits));
      const Raster source = pattern(37, 23, samples, bits);
      support::writePng(sandbox_.path("in.png"), support::pngOf(source));
      const std::vector<std::uint32_t> colours =
          samples < 3 ? std::vector<std::uint32_t>{0} : std::vector<std::uint32_t>{0, 1, 2};
      EXPECT_EQ(difference(toned(source, gamma(bits, 2), colours), tonedPng({"--gamma", "2"})), "");
    }
    Tiff tiff = support::tiffOf(pattern(37, 23, 6, bits));
    support::writeTiff(sandbox_.path("in.tif"), tiff);
    const Tiff made = tonedTiff({"--gamma", "2"});
    EXPECT_EQ(difference(toned(tiff.raster, gamma(bits, 2), {0, 1, 2}), made.raster), "");
    EXPECT_EQ(made.extras, tiff.extras);
    EXPECT_EQ(notes_, "");
  }
}

TEST_F(ToneTest, ChannelsAreChosenByNumber) {
  for (const std::uint32_t bits : {8U, 16U}) {
    const Raster source = pattern(37, 23, 4, bits);
    support::writePng(sandbox_.path("in.png"), support::pngOf(source));
    const Curve curve = gamma(bits, 2);
    EXPECT_EQ(difference(toned(source, curve, {1}), tonedPng({"--gamma", "2", "--channel", "1"})), "");
    EXPECT_EQ(difference(toned(source, curve, {0, 3}),
                         tonedPng({"--channel", "3", "--gamma", "2", "--channel", "0", "--channel", "3"})),
              "");
  }
}

TEST_F(ToneTest, ChannelsThatAreNotThereAreRefused) {
  support::writePng(sandbox_.path("colour.png"), support::pngOf(pattern(5, 4, 3, 8)));
  support::writePng(sandbox_.path("grey.png"), support::pngOf(pattern(5, 4, 1, 8)));
  support::writePng(sandbox_.path("palette.png"), support::palettePng(pattern(5, 4, 1, 8)));
  EXPECT_EQ(refusal({"--invert", "--channel", "3"}, "colour.png"),
            "kvtile: colour.png: it has no channel 3: there are channels 0 to 2; give another --channel\n");
  EXPECT_EQ(refusal({"--invert", "--channel", "0", "--channel", "1"}, "grey.png"),
            "kvtile: grey.png: it has no channel 1: there is only channel 0; give another --channel\n");
  EXPECT_EQ(refusal({"--invert", "--channel", "3"}, "palette.png"),
            "kvtile: palette.png: it has no channel 3: there are channels 0 to 2; give another --channel\n");
}

TEST_F(ToneTest, WhiteIsZeroGreyIsTonedAsItIsSeen) {
  for (const std::uint32_t bits : {8U, 16U}) {
    SCOPED_TRACE(bits);
    Tiff tiff = support::tiffOf(everyValue(bits));
    tiff.photometric = PHOTOMETRIC_MINISWHITE;
    support::writeTiff(sandbox_.path("in.tif"), tiff);
    const Tiff made = tonedTiff({"--gamma", "2", "--threshold", "77", "--brightness", "-0.25"});
    const Curve curve = chain(chain(gamma(bits, 2), threshold(bits, 77)), brightness(bits, -0.25L));
    EXPECT_EQ(made.photometric, PHOTOMETRIC_MINISWHITE);
    EXPECT_EQ(difference(toned(tiff.raster, upsideDown(curve), {0}), made.raster), "");
    // What is seen is the same as in a picture that counts up from black.
    ASSERT_EQ(sandbox_.kvtile({"convert", "in.tif", "black.png"}).status, 0);
    ASSERT_EQ(sandbox_.kvtile(toneCommand({"--gamma", "2"}, "in.tif", "white.png")).status, 0);
    ASSERT_EQ(sandbox_.kvtile(toneCommand({"--gamma", "2"}, "black.png", "black.png")).status, 0);
    EXPECT_EQ(sandbox_.read("white.png"), sandbox_.read("black.png"));
    ASSERT_EQ(std::remove(sandbox_.path("black.png").c_str()), 0);
  }
  Tiff alpha = support::tiffOf(pattern(37, 23, 2, 8));
  alpha.photometric = PHOTOMETRIC_MINISWHITE;
  support::writeTiff(sandbox_.path("in.tif"), alpha);
  const Curve curve = gamma(8, 2);
  EXPECT_EQ(difference(toned(toned(alpha.raster, upsideDown(curve), {0}), curve, {1}),
                       tonedTiff({"--gamma", "2", "--channel", "0", "--channel", "1"}).raster),
            "")
      << "the other sample has no white";
}

TEST_F(ToneTest, InksChangeAllAndOtherSamplesOnlyByName) {
  Tiff inks = support::tiffOf(pattern(37, 23, 5, 8));
  inks.photometric = PHOTOMETRIC_SEPARATED;
  inks.extras = {EXTRASAMPLE_UNASSALPHA};
  support::writeTiff(sandbox_.path("in.tif"), inks);
  EXPECT_EQ(difference(toned(inks.raster, gamma(8, 2), {0, 1, 2, 3}), tonedTiff({"--gamma", "2"}).raster), "");
  Tiff lab = support::tiffOf(pattern(37, 23, 3, 8));
  lab.photometric = PHOTOMETRIC_CIELAB;
  support::writeTiff(sandbox_.path("in.tif"), lab);
  EXPECT_EQ(refusal({"--gamma", "2"}, "in.tif"),
            "kvtile: in.tif: not all of its samples (CIE L*a*b*) are tones; "
            "say with --channel which of them to change\n");
  EXPECT_EQ(difference(toned(lab.raster, gamma(8, 2), {0}), tonedTiff({"--gamma", "2", "--channel", "0"}).raster), "");
}

TEST_F(ToneTest, OtherSamplesAreRefused) {
  support::writePng(sandbox_.path("1.png"), support::pngOf(pattern(5, 4, 1, 1)));
  EXPECT_EQ(refusal({"--invert"}, "1.png"),
            "kvtile: 1.png: its samples (1 x 1 bit, unsigned) are not of 8 or 16 bits; "
            "run again with --to-8bit to widen them\n");
  support::writeTiff(sandbox_.path("4.tif"), support::tiffOf(pattern(5, 4, 3, 4)));
  EXPECT_EQ(refusal({"--invert"}, "4.tif"),
            "kvtile: 4.tif: its samples (3 x 4 bits, unsigned) are not of 8 or 16 bits; "
            "run again with --to-8bit to widen them\n");
  support::writeTiff(sandbox_.path("32.tif"), support::tiffOf(pattern(5, 4, 1, 32)));
  EXPECT_EQ(refusal({"--invert"}, "32.tif"),
            "kvtile: 32.tif: its samples (1 x 32 bits, unsigned) are not of 8 or 16 bits; "
            "convert it to 8 or 16 bits first\n");
  Tiff other = support::tiffOf(pattern(5, 4, 1, 16));
  other.sampleFormat = SAMPLEFORMAT_INT;
  support::writeTiff(sandbox_.path("signed.tif"), other);
  EXPECT_EQ(refusal({"--invert"}, "signed.tif"),
            "kvtile: signed.tif: its samples (1 x 16 bits, signed) are no whole numbers from zero; "
            "convert it to unsigned samples of 8 or 16 bits first\n");
  other = support::tiffOf(support::floatPattern(5, 4, 1, 32));
  other.sampleFormat = SAMPLEFORMAT_IEEEFP;
  support::writeTiff(sandbox_.path("float.tif"), other);
  EXPECT_EQ(refusal({"--invert"}, "float.tif"),
            "kvtile: float.tif: its samples (1 x 32 bits, floating point) are no whole numbers from zero; "
            "convert it to unsigned samples of 8 or 16 bits first\n");
}

TEST_F(ToneTest, WideningComesFirst) {
  const Raster source = pattern(37, 23, 1, 4);
  support::writePng(sandbox_.path("in.png"), support::pngOf(source));
  EXPECT_EQ(difference(toned(support::widened(source, 17), gamma(8, 2), {0}), tonedPng({"--to-8bit", "--gamma", "2"})),
            "");
}

TEST_F(ToneTest, ThresholdsBeyondTheDepthAreRefused) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(5, 4, 1, 8)));
  EXPECT_EQ(refusal({"--threshold", "256"}, "in.png"),
            "kvtile: in.png: a threshold of 256 is beyond its tones of 8 bits; give --threshold 0 to 255\n");
  support::writePng(sandbox_.path("palette.png"), support::palettePng(pattern(5, 4, 1, 4)));
  EXPECT_EQ(refusal({"--threshold", "65535"}, "palette.png"),
            "kvtile: palette.png: a threshold of 65535 is beyond its tones of 8 bits; give --threshold 0 to 255\n");
}

TEST_F(ToneTest, TellsOfPremultipliedAlpha) {
  Tiff tiff = support::tiffOf(pattern(37, 23, 4, 8));
  tiff.extras = {EXTRASAMPLE_ASSOCALPHA};
  support::writeTiff(sandbox_.path("in.tif"), tiff);
  EXPECT_EQ(difference(toned(tiff.raster, gamma(8, 2), {0, 1, 2}), tonedTiff({"--gamma", "2"}).raster), "");
  EXPECT_EQ(notes_, "kvtile: in.tif: its colours are multiplied by their alpha, and the curve works on the products\n");
  tonedTiff({"--gamma", "2", "--channel", "3"});
  EXPECT_EQ(notes_, "") << "alpha alone";
}

// ---- Palettes

std::vector<std::array<std::uint8_t, 3>> tonedColours(std::vector<std::array<std::uint8_t, 3>> colours,
                                                      const Curve& curve, const std::vector<std::uint32_t>& channels) {
  for (auto& colour : colours) {
    for (const std::uint32_t channel : channels) {
      colour[channel] = static_cast<std::uint8_t>(curve[colour[channel]]);
    }
  }
  return colours;
}

TEST_F(ToneTest, PalettesOfPngsChangeInThePlaceOfPixels) {
  for (const std::uint32_t bits : {1U, 4U, 8U}) {
    SCOPED_TRACE(bits);
    Png source = support::palettePng(pattern(37, 23, 1, bits));
    source.paletteAlpha = {7, 77};
    support::writePng(sandbox_.path("in.png"), source);
    EXPECT_EQ(difference(source.raster, tonedPng({"--contrast", "0.5", "--gamma", "2"})), "");
    const Curve curve = curveOf(8, [](long double value, long double highest) {
      return gammaed(contrasted(value, highest, 0.5L), highest, 2);
    });
    Png made = support::readPng(sandbox_.path("out.png"));
    EXPECT_EQ(made.palette, tonedColours(source.palette, curve, {0, 1, 2}));
    EXPECT_EQ(made.paletteAlpha, source.paletteAlpha);
    tonedPng({"--threshold", "200", "--channel", "1"});
    made = support::readPng(sandbox_.path("out.png"));
    EXPECT_EQ(made.palette, tonedColours(source.palette, threshold(8, 200), {1}));
  }
}

support::ColourMap colourMap(std::uint32_t scale) {
  support::ColourMap map;
  for (std::uint32_t i = 0; i < 256; ++i) {
    map.red.push_back(static_cast<std::uint16_t>((i * 3 + 1) % 256 * scale));
    map.green.push_back(static_cast<std::uint16_t>((255 - i) * scale));
    map.blue.push_back(static_cast<std::uint16_t>(i * i % 256 * scale));
  }
  return map;
}

// The nearest 8-bit component of each, changed, in 16 bits. `highest`: what stands for full colour.
std::vector<std::uint16_t> tonedComponents(const std::vector<std::uint16_t>& stored, double highest,
                                           const Curve& curve) {
  std::vector<std::uint16_t> result;
  for (const std::uint16_t component : stored) {
    result.push_back(
        static_cast<std::uint16_t>(curve[static_cast<std::size_t>(std::lround(component * 255 / highest))] * 257));
  }
  return result;
}

TEST_F(ToneTest, PalettesOfTiffsChangeWhicheverWayTheyAreStored) {
  const Curve curve = gamma(8, 2);
  for (const std::uint32_t scale : {1U, 256U, 257U}) {
    SCOPED_TRACE(scale);
    const double highest = scale == 1 ? 255 : 65535;
    Tiff source = support::tiffOf(pattern(37, 23, 1, 8));
    source.photometric = PHOTOMETRIC_PALETTE;
    source.colourMap = colourMap(scale);
    const support::ColourMap& stored = *source.colourMap;
    support::writeTiff(sandbox_.path("in.tif"), source);
    Tiff made = tonedTiff({"--gamma", "2"});
    EXPECT_EQ(difference(source.raster, made.raster), "");
    EXPECT_EQ(made.photometric, PHOTOMETRIC_PALETTE);
    const support::ColourMap expected = {tonedComponents(stored.red, highest, curve),
                                         tonedComponents(stored.green, highest, curve),
                                         tonedComponents(stored.blue, highest, curve)};
    EXPECT_EQ(made.colourMap, expected);
    // The PNG of it shows the same colours.
    ASSERT_EQ(sandbox_.kvtile(toneCommand({"--gamma", "2"}, "in.tif", "out.png")).status, 0);
    const Png png = support::readPng(sandbox_.path("out.png"));
    ASSERT_EQ(png.palette.size(), 256U);
    for (std::size_t i = 0; i < 256; ++i) {
      EXPECT_THAT(png.palette[i], ElementsAre(expected.red[i] / 257, expected.green[i] / 257, expected.blue[i] / 257));
    }
    // What is not changed keeps its bits, spread to those that a colour map has.
    made = tonedTiff({"--gamma", "2", "--channel", "0", "--channel", "2"});
    EXPECT_EQ(made.colourMap->red, expected.red);
    EXPECT_EQ(made.colourMap->green, scale == 1 ? colourMap(257).green : stored.green);
    EXPECT_EQ(made.colourMap->blue, expected.blue);
  }
}

// ---- Transparent colours

TEST_F(ToneTest, TheTransparentColourFollows) {
  Png source = support::pngOf(pattern(37, 23, 3, 8));
  source.colourKey = {10, 20, 30};
  support::writePng(sandbox_.path("in.png"), source);
  tonedPng({"--invert"});
  EXPECT_EQ(support::readPng(sandbox_.path("out.png")).colourKey, (std::array<std::uint16_t, 3>{245, 235, 225}));
  tonedPng({"--invert", "--channel", "1"});
  EXPECT_EQ(support::readPng(sandbox_.path("out.png")).colourKey, (std::array<std::uint16_t, 3>{10, 235, 30}));
  Png grey = support::pngOf(pattern(37, 23, 1, 16));
  grey.colourKey = {1000, 1000, 1000};
  support::writePng(sandbox_.path("in.png"), grey);
  tonedPng({"--invert"});
  EXPECT_EQ(support::readPng(sandbox_.path("out.png")).colourKey, (std::array<std::uint16_t, 3>{64535, 64535, 64535}));
}

TEST_F(ToneTest, BitsBeyondTheDepthOfATransparentColourDoNotCount) {
  Png source = support::pngOf(pattern(37, 23, 1, 8));
  source.colourKey = {0x10, 0x10, 0x10};
  support::writePng(sandbox_.path("in.png"), source);
  std::string file = sandbox_.read("in.png");
  const std::size_t chunk = file.find("tRNS") - 4;
  file[chunk + 8] = '\x01';
  support::fixChecksum(file, chunk);
  sandbox_.write("in.png", file);
  tonedPng({"--invert"});
  EXPECT_EQ(support::readPng(sandbox_.path("out.png")).colourKey, (std::array<std::uint16_t, 3>{239, 239, 239}));
}

TEST_F(ToneTest, TellsOfMoreTransparentPixels) {
  Png source = support::pngOf(pattern(37, 23, 3, 8));
  source.colourKey = {10, 20, 30};
  support::writePng(sandbox_.path("in.png"), source);
  const auto notes = [this](const std::vector<std::string>& options, const char* out) {
    const Result result = sandbox_.kvtile(toneCommand(options, "in.png", out));
    EXPECT_EQ(result.status, 0);
    return result.err;
  };
  const std::string more =
      "kvtile: out.png: other colours became the transparent one, so that more pixels may be transparent\n";
  EXPECT_EQ(notes({"--threshold", "15"}, "out.png"), more);
  EXPECT_EQ(support::readPng(sandbox_.path("out.png")).colourKey, (std::array<std::uint16_t, 3>{0, 255, 255}));
  EXPECT_EQ(notes({"--brightness", "-0.5", "--channel", "2"}, "out.png"), more) << "29 and 30 both become 15";
  // 255 is the value that many become, and none of the key's is among them.
  EXPECT_EQ(notes({"--brightness", "0.5"}, "out.png"), "");
  EXPECT_EQ(notes({"--threshold", "15"}, "out.tif"),
            "kvtile: out.tif: TIFF has no place for the PNG's transparent colour; it is dropped\n");
  EXPECT_EQ(notes({"--threshold", "15", "--quiet"}, "out.png"), "");
}

// ---- The picture around the samples

TEST_F(ToneTest, ThePictureIsUprightAndKeepsWhatItSays) {
  const Raster upright = pattern(40, 30, 3, 8);
  for (std::uint16_t orientation = 1; orientation <= 8; ++orientation) {
    Tiff source = support::tiffOf(storedAs(upright, orientation));
    source.orientation = orientation;
    source.compression = COMPRESSION_LZW;
    source.predictor = PREDICTOR_HORIZONTAL;
    source.resolution = {{300, 300}};
    source.unit = RESUNIT_INCH;
    support::writeTiff(sandbox_.path("in.tif"), source);
    const Tiff made = tonedTiff({"--gamma", "2"});
    EXPECT_EQ(difference(toned(upright, gamma(8, 2), {0, 1, 2}), made.raster), "") << orientation;
    EXPECT_EQ(made.orientation.value_or(1), 1);
    EXPECT_EQ(made.compression, COMPRESSION_LZW);
    EXPECT_EQ(made.resolution, source.resolution);
  }
}

TEST_F(ToneTest, EveryStorageMakesTheSame) {
  for (const std::uint32_t bits : {8U, 16U}) {
    const Raster source = pattern(700, 500, 3, bits);
    support::writePng(sandbox_.path("in.png"), support::pngOf(source));
    const Raster expected = toned(source, gamma(bits, 2), {0, 2});
    for (const char* place : {"auto", "memory", "file"}) {
      EXPECT_EQ(
          difference(expected, tonedPng({"--gamma", "2", "--channel", "0", "--channel", "2", "--storage", place})), "")
          << place;
    }
  }
}

TEST_F(ToneTest, ReplacesItsInputIfTold) {
  const Raster source = pattern(37, 23, 3, 8);
  support::writePng(sandbox_.path("in.png"), support::pngOf(source));
  Result result = sandbox_.kvtile({"tone", "--invert", "in.png", "in.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: in.png: is the input file itself; give --force to replace it, or choose another name\n");
  result = sandbox_.kvtile({"tone", "--invert", "--force", "in.png", "in.png"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(difference(toned(source, inversion(8), {0, 1, 2}), support::readPng(sandbox_.path("in.png")).raster), "");
  EXPECT_THAT(sandbox_.names(), ElementsAre("in.png"));
}

TEST_F(ToneTest, ManyStepsTakeOnePass) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(900, 900, 3, 8)));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "tone", "--gamma", "2", "--gamma", "3", "--threshold", "9", "--invert", "--contrast",
                   "0.5", "--channel", "0", "--channel", "1", "in.png", "out.png"},
                  sandbox_.folder(), terminal.slave());
  EXPECT_EQ(process.wait().status, 0);
  const std::string text = terminal.text();
  const auto count = [&text](const std::string& word) {
    std::size_t found = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
      ++found;
    }
    return found;
  };
  EXPECT_EQ(count("toning  [........................................]   0%"), 1U);
  EXPECT_EQ(count("toning  [########################################] 100%"), 1U);
  EXPECT_LT(text.find("reading ["), text.find("toning  ["));
  EXPECT_LT(text.find("toning  ["), text.find("writing ["));
}

}  // namespace
