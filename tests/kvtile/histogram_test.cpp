// Histograms: the counts as numbers, and what can be seen of them in the pictures.
#include "histogram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "chart.h"
#include "console.h"
#include "image.h"
#include "library_messages.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/terminal.h"
#include "support/tiffs.h"

namespace {

using kvtile::ChannelHistogram;
using kvtile::Histogram;
using kvtile::Light;
using kvtile::Photometric;
using kvtile::Picture;
using kvtile::ToneCurve;
using kvtile::ToneStep;
using support::pattern;
using support::Png;
using support::Process;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Terminal;
using support::Tiff;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;

using Counts = std::vector<std::uint64_t>;

// ---- Counting

// How often each value occurs as sample `channel` of a pixel.
Counts countsOf(const Raster& raster, std::uint32_t channel) {
  Counts counts(std::size_t{1} << raster.bits);
  for (std::size_t i = channel; i < raster.values.size(); i += raster.samples) {
    ++counts[raster.values[i]];
  }
  return counts;
}

class CountTonesTest : public testing::Test {
 protected:
  static Picture describe(const Raster& raster, Photometric photometric) {
    Picture picture;
    picture.width = raster.width;
    picture.height = raster.height;
    picture.pixels = {raster.samples, raster.bits, kvtile::SampleFormat::Unsigned};
    picture.photometric = photometric;
    return picture;
  }

  Histogram count(const Raster& raster, const Picture& picture, const std::vector<std::uint32_t>& channels) {
    kvtile::Image image("in.tif", picture, kvtile::Storage(0, kvtile::Placement::Automatic), messages_);
    for (std::uint32_t y = 0; y < raster.height; ++y) {
      image.setRow(y, 0, raster.width, support::packRow(raster, y, 0, raster.width));
    }
    kvtile::Progress progress(console_);
    return kvtile::countTones(image, picture, channels, progress);
  }

  ToneCurve curve(ToneStep::Kind kind, double amount, std::uint32_t bits = 8) {
    ToneStep step;
    step.kind = kind;
    step.amount = amount;
    return ToneCurve::fromSteps({step}, bits, "in.tif", messages_);
  }

  kvtile::Console console_ = kvtile::Console(false, true);
  kvtile::LibraryMessages messages_ = kvtile::LibraryMessages(console_);
};

TEST_F(CountTonesTest, CountsEveryChannelByItself) {
  for (const std::uint32_t bits : {8U, 16U}) {
    const Raster raster = pattern(301, 57, 4, bits);
    const Histogram histogram = count(raster, describe(raster, Photometric::Rgb), {0, 1, 2, 3});
    EXPECT_EQ(histogram.bits, bits);
    ASSERT_EQ(histogram.channels.size(), 4U);
    constexpr Light kLights[] = {Light::Red, Light::Green, Light::Blue, Light::Other};
    for (std::uint32_t channel = 0; channel < 4; ++channel) {
      EXPECT_EQ(histogram.channels[channel].channel, channel);
      EXPECT_EQ(histogram.channels[channel].light, kLights[channel]);
      EXPECT_EQ(histogram.channels[channel].counts, countsOf(raster, channel)) << channel;
    }
  }
}

TEST_F(CountTonesTest, CountsTheChosenChannels) {
  const Raster raster = pattern(40, 30, 5, 8);
  const Histogram histogram = count(raster, describe(raster, Photometric::Separated), {1, 4});
  ASSERT_EQ(histogram.channels.size(), 2U);
  EXPECT_EQ(histogram.channels[0].counts, countsOf(raster, 1));
  EXPECT_EQ(histogram.channels[1].counts, countsOf(raster, 4));
  EXPECT_EQ(histogram.channels[1].channel, 4U);
  EXPECT_EQ(histogram.channels[1].light, Light::Other);
}

TEST_F(CountTonesTest, WhiteIsZeroGreyIsCountedAsItIsSeen) {
  const Raster raster = pattern(40, 30, 2, 8);
  const Histogram histogram = count(raster, describe(raster, Photometric::WhiteIsZero), {0, 1});
  Counts grey = countsOf(raster, 0);
  std::reverse(grey.begin(), grey.end());
  EXPECT_EQ(histogram.channels[0].counts, grey);
  EXPECT_EQ(histogram.channels[0].light, Light::Grey);
  EXPECT_EQ(histogram.channels[1].counts, countsOf(raster, 1)) << "the other sample has no white";
}

TEST_F(CountTonesTest, PalettesAreCountedByTheirColours) {
  Raster raster(3, 2, 1, 2);
  raster.values = {0, 1, 1, 2, 1, 3};
  Picture picture = describe(raster, Photometric::Palette);
  picture.palette.entries = {{10 * 257, 0, 255 * 257}, {10 * 257, 20 * 257, 0}, {30 * 257, 20 * 257, 0}};
  const Histogram histogram = count(raster, picture, {0, 1, 2});
  EXPECT_EQ(histogram.bits, 8U);
  Counts red(256);
  red[10] = 4;
  red[30] = 1;
  red[0] = 1;  // number 3 is behind the palette's end
  Counts green(256);
  green[0] = 2;
  green[20] = 4;
  Counts blue(256);
  blue[0] = 5;
  blue[255] = 1;
  EXPECT_EQ(histogram.channels[0].counts, red);
  EXPECT_EQ(histogram.channels[1].counts, green);
  EXPECT_EQ(histogram.channels[2].counts, blue);
  EXPECT_EQ(count(raster, picture, {2}).channels[0].counts, blue);
  // As some programs store them.
  picture.palette.entries = {{10, 0, 255}, {10, 20, 0}, {30, 20, 0}};
  EXPECT_EQ(count(raster, picture, {0}).channels[0].counts, red);
}

TEST_F(CountTonesTest, CurvesMoveTheCounts) {
  for (const std::uint32_t bits : {8U, 16U}) {
    const Raster raster = pattern(301, 57, 1, bits);
    const Histogram histogram = count(raster, describe(raster, Photometric::BlackIsZero), {0});
    Counts reversed = countsOf(raster, 0);
    std::reverse(reversed.begin(), reversed.end());
    EXPECT_EQ(histogram.through(curve(ToneStep::Kind::Invert, 0, bits)).channels[0].counts, reversed);
    const Counts cut = histogram.through(curve(ToneStep::Kind::Threshold, 100, bits)).channels[0].counts;
    const auto below = static_cast<std::uint64_t>(
        std::count_if(raster.values.begin(), raster.values.end(), [](std::uint64_t value) { return value < 100; }));
    EXPECT_EQ(cut.front(), below);
    EXPECT_EQ(cut.back(), raster.values.size() - below);
    EXPECT_THAT(Counts(cut.begin() + 1, cut.end() - 1), Each(0U));
  }
}

ChannelHistogram grey(const Counts& counts) {
  ChannelHistogram channel;
  channel.light = Light::Grey;
  channel.counts = counts;
  return channel;
}

TEST(SummaryTest, TellsTheFigures) {
  Counts counts(256);
  counts[3] = 2;
  counts[7] = 1;
  counts[200] = 1;
  kvtile::ToneSummary summary = kvtile::summarize(grey(counts));
  EXPECT_EQ(summary.lowest, 3U);
  EXPECT_EQ(summary.median, 3U) << "half of four";
  EXPECT_EQ(summary.highest, 200U);
  EXPECT_EQ(summary.partAtZero, 0);
  EXPECT_EQ(summary.partAtHighest, 0);
  counts[255] = 4;
  summary = kvtile::summarize(grey(counts));
  EXPECT_EQ(summary.median, 200U);
  EXPECT_EQ(summary.highest, 255U);
  EXPECT_EQ(summary.partAtHighest, 0.5);
  counts[0] = 8;
  summary = kvtile::summarize(grey(counts));
  EXPECT_EQ(summary.lowest, 0U);
  EXPECT_EQ(summary.median, 0U);
  EXPECT_EQ(summary.partAtZero, 0.5);
  EXPECT_EQ(summary.partAtHighest, 0.25);
  Counts one(65536);
  one[65535] = 1;
  summary = kvtile::summarize(grey(one));
  EXPECT_EQ(summary.lowest, 65535U);
  EXPECT_EQ(summary.median, 65535U);
  EXPECT_EQ(summary.partAtHighest, 1);
}

// ---- Heights

TEST(BarHeightsTest, AreParts) {
  Counts counts(256);
  counts[0] = 1;
  counts[255] = 3;
  std::vector<double> expected(256);
  expected[0] = 0.25;
  expected[255] = 0.75;
  EXPECT_EQ(kvtile::barHeights(grey(counts)), expected);
  Counts deep(65536);
  deep[0] = 1;
  deep[65280] = 2;
  deep[65535] = 1;
  EXPECT_EQ(kvtile::barHeights(grey(deep)), expected) << "256 tones in each";
}

double limitOf(const std::vector<double>& bars) { return kvtile::heightLimit({bars}); }

TEST(HeightLimitTest, LeavesOutBarsThatStandOutAlone) {
  std::vector<double> bars(256, 0.001);
  EXPECT_EQ(limitOf(bars), 0.001);
  bars[0] = 0.5;
  EXPECT_EQ(limitOf(bars), 0.001) << "a border";
  bars[1] = 0.2;
  EXPECT_EQ(limitOf(bars), 0.001) << "and what it spills";
  bars[255] = 0.1;
  bars[100] = 0.1;
  EXPECT_EQ(limitOf(bars), 0.001);
  EXPECT_EQ(kvtile::heightLimit({bars, std::vector<double>(256, 0.002)}), 0.002) << "the highest of all channels";
}

TEST(HeightLimitTest, KeepsWhatIsPartOfAHill) {
  std::vector<double> hill(256, 0.001);
  for (int i = -5; i <= 5; ++i) {
    hill[static_cast<std::size_t>(12 + i)] = 0.1 - 0.015 * std::abs(i);
  }
  EXPECT_EQ(limitOf(hill), 0.1);
  // A curve that stretches tones leaves gaps between them.
  std::vector<double> comb(256);
  for (std::size_t i = 0; i < 256; i += 5) {
    comb[i] = hill[i / 5];
  }
  EXPECT_EQ(limitOf(comb), 0.1);
}

TEST(HeightLimitTest, CutsNothingForLittle) {
  std::vector<double> few(256);
  few[0] = 0.9;
  few[255] = 0.1;
  EXPECT_EQ(limitOf(few), 0.9) << "there is nothing else to see";
  std::vector<double> lone(256);
  lone[17] = 1;
  EXPECT_EQ(limitOf(lone), 1);
  EXPECT_EQ(kvtile::heightLimit({lone, std::vector<double>(256, 0.004)}), 0.004) << "there is another channel to see";
}

// ---- Pictures

// Pixels for which `is` holds, of [x1, x2) and [y1, y2) or of all.
using Test = std::function<bool(std::uint64_t red, std::uint64_t green, std::uint64_t blue)>;

std::size_t pixelsWith(const Raster& raster, std::uint32_t x1, std::uint32_t x2, std::uint32_t y1, std::uint32_t y2,
                       const Test& is) {
  std::size_t found = 0;
  for (std::uint32_t y = y1; y < y2; ++y) {
    for (std::uint32_t x = x1; x < x2; ++x) {
      found += is(raster.at(x, y, 0), raster.at(x, y, 1), raster.at(x, y, 2)) ? 1 : 0;
    }
  }
  return found;
}

std::size_t pixelsWith(const Raster& raster, const Test& is) {
  return pixelsWith(raster, 0, raster.width, 0, raster.height, is);
}

bool isRed(std::uint64_t red, std::uint64_t green, std::uint64_t blue) { return red > 140 && green < 60 && blue < 60; }
bool isGreen(std::uint64_t red, std::uint64_t green, std::uint64_t blue) { return isRed(green, red, blue); }
bool isBlue(std::uint64_t red, std::uint64_t green, std::uint64_t blue) { return isRed(blue, green, red); }
bool isDark(std::uint64_t red, std::uint64_t green, std::uint64_t blue) { return red + green + blue < 200; }

// Neither paper nor white, and nearly without colour.
bool isGreyArea(std::uint64_t red, std::uint64_t green, std::uint64_t blue) {
  const auto [low, high] = std::minmax({red, green, blue});
  return high - low < 16 && high < 225 && low > 60;
}

class HistogramTest : public testing::Test {
 protected:
  // The chart of in.png or in.tif, whichever was written.
  Raster chart(std::vector<std::string> options, const std::string& in) {
    options.insert(options.begin(), "histogram");
    options.insert(options.end(), {"--force", in, "chart.png"});
    const Result result = sandbox_.kvtile(options);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "");
    const Png made = support::readPng(sandbox_.path("chart.png"));
    EXPECT_EQ(made.raster.samples, 3U);
    EXPECT_EQ(made.raster.bits, 8U);
    return made.raster;
  }

  Raster chartOf(const Raster& raster, const std::vector<std::string>& options = {}) {
    support::writePng(sandbox_.path("in.png"), support::pngOf(raster));
    return chart(options, "in.png");
  }

  std::string refusal(const std::vector<std::string>& options, const std::string& in) {
    std::vector<std::string> command = {"histogram", in, "refused.png"};
    command.insert(command.end(), options.begin(), options.end());
    const Result result = sandbox_.kvtile(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    for (const std::string& name : sandbox_.names()) {
      EXPECT_EQ(name.find("refused"), std::string::npos) << name;
    }
    return result.err;
  }

  Sandbox sandbox_;
};

// Every tone of each channel that is in `channels`; the others are 0.
Raster tonesOf(const std::vector<std::uint32_t>& channels) {
  Raster raster(64, 64, 3, 8);
  for (std::uint32_t i = 0; i < 64 * 64; ++i) {
    for (const std::uint32_t channel : channels) {
      raster.values[i * 3 + channel] = i % 256;
    }
  }
  return raster;
}

TEST_F(HistogramTest, ColoursShowTheirLight) {
  const Raster red = chartOf(tonesOf({0}));
  EXPECT_GT(red.width, 900U);
  EXPECT_LT(red.width, 1200U);
  EXPECT_GT(red.height, 300U);
  EXPECT_GT(pixelsWith(red, isRed), 50000U);
  EXPECT_LT(pixelsWith(red, isGreen), 500U) << "the sample beside the figures and nothing else";
  EXPECT_GT(pixelsWith(chartOf(tonesOf({1})), isGreen), 50000U);
  EXPECT_GT(pixelsWith(chartOf(tonesOf({2})), isBlue), 50000U);
  // Light of two colours adds up, that of three has none.
  const auto yellow = [](std::uint64_t r, std::uint64_t g, std::uint64_t b) { return r > 140 && g > 140 && b < 60; };
  EXPECT_GT(pixelsWith(chartOf(tonesOf({0, 1})), yellow), 50000U);
  const Raster all = chartOf(tonesOf({0, 1, 2}));
  EXPECT_GT(pixelsWith(all, isGreyArea), 50000U);
  EXPECT_LT(pixelsWith(all, isRed), 500U);
}

TEST_F(HistogramTest, GreyIsGrey) {
  const Raster made = chartOf(pattern(64, 64, 1, 8));
  EXPECT_GT(pixelsWith(made, isGreyArea), 20000U);
  EXPECT_EQ(pixelsWith(made, isRed) + pixelsWith(made, isGreen) + pixelsWith(made, isBlue), 0U);
}

TEST_F(HistogramTest, CurvesAddAPanel) {
  const Raster source = tonesOf({0});
  const Raster one = chartOf(source);
  const Raster two = chartOf(source, {"--threshold", "128"});
  EXPECT_EQ(two.width, one.width);
  EXPECT_GT(two.height, one.height + 250);
  // Before, the tones fill the plot; afterwards there are two bars, one at each end.
  const auto reds = [&two](std::uint32_t y1, std::uint32_t y2) { return pixelsWith(two, 0, 600, y1, y2, isRed); };
  EXPECT_GT(reds(0, two.height / 2), 50000U);
  EXPECT_LT(reds(two.height / 2, two.height), 2000U);
  EXPECT_GT(reds(two.height / 2, two.height), 200U);
}

TEST_F(HistogramTest, SpikesAreCutAndMarked) {
  Raster border(64, 64, 1, 8);
  for (std::uint32_t i = 0; i < 32 * 64; ++i) {
    border.values[i] = i % 256;
  }
  const Raster made = chartOf(border);
  EXPECT_GT(pixelsWith(made, isGreyArea), 100000U) << "the others still fill the plot";
  // The arrowhead above the bar for black.
  EXPECT_GT(pixelsWith(made, 79, 92, 100, 116, isDark), 20U);
  const Raster plain = chartOf(pattern(64, 64, 1, 8));
  EXPECT_EQ(pixelsWith(plain, 79, 92, 100, 116, isDark), 0U);
}

TEST_F(HistogramTest, TheSameInputGivesTheSameBytes) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(300, 200, 3, 16)));
  const auto made = [this](const std::string& name, const std::vector<std::string>& options) {
    std::vector<std::string> command = {"histogram", "--gamma", "2", "in.png", name};
    command.insert(command.end(), options.begin(), options.end());
    EXPECT_EQ(sandbox_.kvtile(command).status, 0);
    return sandbox_.read(name);
  };
  const std::string png = made("a.png", {});
  EXPECT_EQ(made("b.png", {}), png);
  EXPECT_EQ(made("c.png", {"--storage", "file"}), png);
  EXPECT_EQ(made("d.png", {"--storage", "memory"}), png);
  EXPECT_EQ(made("a.tif", {}), made("b.tiff", {}));
  EXPECT_EQ(sandbox_.differingPixels("a.png", "a.tif"), 0);
  EXPECT_THAT(sandbox_.names(), ElementsAre("a.png", "a.tif", "b.png", "b.tiff", "c.png", "d.png", "in.png"));
}

TEST_F(HistogramTest, TheSmallestAndThePlainestPicturesHaveOne) {
  for (const std::uint32_t bits : {8U, 16U}) {
    for (const std::uint32_t samples : {1U, 2U, 3U, 4U}) {
      chartOf(Raster(1, 1, samples, bits), {"--gamma", "2"});
      Raster white(5, 3, samples, bits);
      std::fill(white.values.begin(), white.values.end(), white.highest());
      chartOf(white, {"--invert", "--contrast", "-1"});
      chartOf(pattern(9, 4, samples, bits));
    }
  }
}

TEST_F(HistogramTest, EveryKindOfPictureHasOne) {
  support::writePng(sandbox_.path("in.png"), support::palettePng(pattern(50, 40, 1, 4)));
  EXPECT_GT(pixelsWith(chart({"--gamma", "2"}, "in.png"), isRed), 100U);
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(50, 40, 1, 2)));
  chart({"--to-8bit"}, "in.png");
  Tiff tiff = support::tiffOf(pattern(50, 40, 5, 16));
  tiff.photometric = PHOTOMETRIC_SEPARATED;
  tiff.extras = {EXTRASAMPLE_UNASSALPHA};
  support::writeTiff(sandbox_.path("in.tif"), tiff);
  EXPECT_EQ(pixelsWith(chart({"--gamma", "2"}, "in.tif"), isRed), 0U);
  tiff = support::tiffOf(pattern(50, 40, 3, 8));
  tiff.photometric = PHOTOMETRIC_CIELAB;
  support::writeTiff(sandbox_.path("in.tif"), tiff);
  chart({}, "in.tif");
  chart({"--channel", "0", "--gamma", "2"}, "in.tif");
  tiff = support::tiffOf(pattern(50, 40, 11, 8));
  support::writeTiff(sandbox_.path("in.tif"), tiff);
  chart({"--channel", "0", "--channel", "3", "--channel", "4", "--channel", "5", "--channel", "6", "--channel", "7",
         "--channel", "8", "--channel", "10", "--gamma", "2"},
        "in.tif");
}

TEST_F(HistogramTest, NamesOfAnyKindAreShown) {
  for (const std::string& name : {std::string(250, 'n') + ".png", std::string("\xff\x02\xc3.png"),
                                  std::string("Stra\xc3\x9f"
                                              "e \xe2\x82\xac.png")}) {
    support::writePng(sandbox_.path(name), support::pngOf(pattern(9, 4, 3, 8)));
    chart({}, name);
  }
}

TEST_F(HistogramTest, RefusesWhatItCannotCount) {
  support::writePng(sandbox_.path("4.png"), support::pngOf(pattern(5, 4, 1, 4)));
  EXPECT_EQ(refusal({}, "4.png"),
            "kvtile: 4.png: its samples (1 x 4 bits, unsigned) are not of 8 or 16 bits; "
            "run again with --to-8bit to widen them\n");
  Tiff tiff = support::tiffOf(support::floatPattern(5, 4, 1, 32));
  tiff.sampleFormat = SAMPLEFORMAT_IEEEFP;
  support::writeTiff(sandbox_.path("float.tif"), tiff);
  EXPECT_EQ(refusal({}, "float.tif"),
            "kvtile: float.tif: its samples (1 x 32 bits, floating point) are no whole numbers from zero; "
            "convert it to unsigned samples of 8 or 16 bits first\n");
  tiff = support::tiffOf(pattern(5, 4, 9, 8));
  tiff.photometric = PHOTOMETRIC_SEPARATED;
  tiff.extras.clear();
  tiff.inkSet = INKSET_MULTIINK;
  for (int ink = 0; ink < 9; ++ink) {
    tiff.inkNames += std::string("ink") + static_cast<char>('a' + ink) + '\0';
  }
  support::writeTiff(sandbox_.path("inks.tif"), tiff);
  EXPECT_EQ(refusal({}, "inks.tif"),
            "kvtile: inks.tif: its 9 channels are too many for one chart; choose up to 8 of them with --channel\n");
  tiff = support::tiffOf(pattern(5, 4, 3, 8));
  tiff.photometric = PHOTOMETRIC_CIELAB;
  support::writeTiff(sandbox_.path("lab.tif"), tiff);
  EXPECT_EQ(refusal({"--invert"}, "lab.tif"),
            "kvtile: lab.tif: not all of its samples (CIE L*a*b*) are tones; "
            "say with --channel which of them to change\n");
  EXPECT_EQ(refusal({"--channel", "3"}, "lab.tif"),
            "kvtile: lab.tif: it has no channel 3: there are channels 0 to 2; give another --channel\n");
  EXPECT_EQ(refusal({"--channel", "0", "--threshold", "256"}, "lab.tif"),
            "kvtile: lab.tif: a threshold of 256 is beyond its tones of 8 bits; give --threshold 0 to 255\n");
  const Result existing = sandbox_.kvtile({"histogram", "lab.tif", "4.png"});
  EXPECT_EQ(existing.status, 1);
  EXPECT_EQ(existing.err, "kvtile: 4.png: exists already; give --force to replace it, or choose another name\n");
}

TEST_F(HistogramTest, ADamagedPictureLeavesNothing) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(300, 200, 3, 8)));
  sandbox_.write("in.png", sandbox_.read("in.png").substr(0, 9000));
  EXPECT_THAT(refusal({}, "in.png"), testing::StartsWith("kvtile: in.png: the pixels cannot be read"));
  EXPECT_THAT(sandbox_.names(), ElementsAre("in.png"));
}

TEST_F(HistogramTest, ShowsThatItCounts) {
  support::writePng(sandbox_.path("in.png"), support::pngOf(pattern(900, 900, 3, 8)));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "histogram", "--gamma", "2", "in.png", "out.png"}, sandbox_.folder(),
                  terminal.slave());
  EXPECT_EQ(process.wait().status, 0);
  const std::string text = terminal.text();
  EXPECT_THAT(text, HasSubstr("counting [########################################] 100%"));
  EXPECT_LT(text.find("reading ["), text.find("counting ["));
  EXPECT_EQ(text.find("toning"), std::string::npos) << "the curve moves the counts, not the pixels";
  EXPECT_THAT(terminal.screen(), testing::IsEmpty());
}

}  // namespace
