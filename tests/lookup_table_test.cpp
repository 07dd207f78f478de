// Every kind of lookup table, entry by entry, against tables that are worked out here.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/log_capture.h"
#include "support/lookup_handles.h"

namespace {

using support::entriesOf;
using support::errors;
using support::everyValue;
using support::LogCapture;
using support::Table;
using testing::Each;

using Entries = std::vector<std::uint32_t>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

std::uint32_t highest(std::uint32_t bits) { return bits == 8 ? 255 : 65535; }
std::uint32_t middle(std::uint32_t bits) { return bits == 8 ? 128 : 32768; }

// ---- The model

// The nearest whole number from 0 to the highest value, the upper one of two that are as near.
std::uint32_t entry(long double value, std::uint32_t bits) {
  if (!(value > 0)) {
    return 0;
  }
  if (value >= highest(bits)) {
    return highest(bits);
  }
  const auto whole = static_cast<std::uint32_t>(value);
  return value - whole >= 0.5L ? whole + 1 : whole;
}

// The range of samples as real numbers.
double cut(double value, std::uint32_t bits) { return value > highest(bits) ? highest(bits) : value > 0 ? value : 0; }

// A power in more digits than the library has. Where those could not decide how to round, the test has to choose
// another curve.
long double bent(long double value, double gamma, std::uint32_t bits) {
  const long double most = highest(bits);
  const long double result = most * std::pow(value / most, 1 / static_cast<long double>(gamma));
  EXPECT_GT(std::fabs(result - std::floor(result) - 0.5L), 1e-9L) << "gamma " << gamma << " of " << value;
  return result;
}

Entries modelOf(std::uint32_t bits, const std::function<std::uint32_t(std::uint32_t)>& entryFor) {
  Entries entries;
  for (const std::uint32_t value : everyValue(bits)) {
    entries.push_back(entryFor(value));
  }
  return entries;
}

Entries gammaModel(std::uint32_t bits, double gamma) {
  return modelOf(bits, [=](std::uint32_t i) { return entry(bent(i, gamma, bits), bits); });
}

Entries brightnessModel(std::uint32_t bits, double brightness) {
  return modelOf(bits, [=](std::uint32_t i) { return entry(double(i) * (brightness + 1), bits); });
}

// From the middle upwards; all of the lower half is white.
Entries contrastModel(std::uint32_t bits, double contrast) {
  return modelOf(bits, [=](std::uint32_t i) {
    const double above = double(i) - middle(bits);
    return i < middle(bits) ? highest(bits) : entry(above * (contrast + 1) + middle(bits), bits);
  });
}

Entries combinedModel(std::uint32_t bits, double brightness, double contrast, double gamma, bool invert) {
  return modelOf(bits, [=](std::uint32_t i) {
    const double spread = cut((double(i) - middle(bits)) * (contrast + 1) + middle(bits), bits);
    const double lit = cut(spread * (brightness + 1), bits);
    const std::uint32_t result = gamma > 0 && gamma != 1 ? entry(bent(lit, gamma, bits), bits) : entry(lit, bits);
    return invert ? highest(bits) - result : result;
  });
}

Entries thresholdModel(std::uint32_t bits, std::uint32_t threshold, bool invert) {
  return modelOf(bits, [=](std::uint32_t i) { return (i >= threshold) != invert ? highest(bits) : 0; });
}

// ---- One name for the two depths and for the functions that take the depth

class LookupTableTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  std::uint32_t bits() const { return GetParam(); }

  // What both functions for a depth return, which have to agree.
  template <typename Create, typename Create8, typename Create16, typename... Parameters>
  Entries made(Create create, Create8 create8, Create16 create16, Parameters... parameters) {
    const Table one(create(bits(), parameters...));
    const Table other(bits() == 8 ? create8(parameters...) : create16(parameters...));
    EXPECT_EQ(one == nullptr, other == nullptr);
    if (one == nullptr || other == nullptr) {
      return {};
    }
    const Entries entries = entriesOf(one, bits());
    EXPECT_EQ(entries, entriesOf(other, bits()));
    return entries;
  }

  Entries gammaTable(double gamma) {
    return made(&KvTileImage_CreateLookupTable_Gamma, &KvTileImage_CreateLookupTable8_Gamma,
                &KvTileImage_CreateLookupTable16_Gamma, gamma);
  }
  Entries brightnessTable(double brightness) {
    return made(&KvTileImage_CreateLookupTable_Brightness, &KvTileImage_CreateLookupTable8_Brightness,
                &KvTileImage_CreateLookupTable16_Brightness, brightness);
  }
  Entries contrastTable(double contrast) {
    return made(&KvTileImage_CreateLookupTable_Contrast, &KvTileImage_CreateLookupTable8_Contrast,
                &KvTileImage_CreateLookupTable16_Contrast, contrast);
  }
  Entries combinedTable(double brightness, double contrast, double gamma, bool invert) {
    return made(&KvTileImage_CreateLookupTable_BrightnessContrastGamma,
                &KvTileImage_CreateLookupTable8_BrightnessContrastGamma,
                &KvTileImage_CreateLookupTable16_BrightnessContrastGamma, brightness, contrast, gamma, invert);
  }
  Entries brightnessContrastTable(double brightness, double contrast) {
    return made(&KvTileImage_CreateLookupTable_BrightnessContrast, &KvTileImage_CreateLookupTable8_BrightnessContras,
                &KvTileImage_CreateLookupTable16_BrightnessContrast, brightness, contrast);
  }
  Entries thresholdTable(std::int32_t threshold, bool invert) {
    return made(&KvTileImage_CreateLookupTable_Threshold, &KvTileImage_CreateLookupTable8_Threshold,
                &KvTileImage_CreateLookupTable16_Threshold, threshold, invert);
  }
  Entries byteStreamTable(const std::vector<std::uint8_t>& bytes, std::uint64_t byteCount) {
    return made(&KvTileImage_CreateLookupTable_ByteStream, &KvTileImage_CreateLookupTable8_ByteStream,
                &KvTileImage_CreateLookupTable16_ByteStream, bytes.data(), byteCount);
  }
};

INSTANTIATE_TEST_SUITE_P(Depths, LookupTableTest, testing::Values(8U, 16U),
                         [](const auto& depth) { return std::to_string(depth.param) + "Bits"; });

// ---- Gamma

TEST_P(LookupTableTest, GammaBendsEveryValue) {
  for (const double gamma : {0.1, 0.4545, 0.5, 1.0 / 2.2, 0.999, 1.0, 1.8, 2.0, 2.2, 7.3, 100.0}) {
    EXPECT_EQ(gammaTable(gamma), gammaModel(bits(), gamma)) << gamma;
  }
}

TEST_P(LookupTableTest, GammaOfOneChangesNothing) { EXPECT_EQ(gammaTable(1.0), everyValue(bits())); }

TEST(LookupTable8Test, GammaOfTwoTakesTheSquareRoot) {
  const Entries entries = entriesOf(Table(KvTileImage_CreateLookupTable8_Gamma(2.0)), 8);
  ASSERT_EQ(entries.size(), 256U);
  EXPECT_EQ(entries[0], 0U);
  EXPECT_EQ(entries[1], 16U);     // 15.97
  EXPECT_EQ(entries[64], 128U);   // 127.75
  EXPECT_EQ(entries[128], 181U);  // 180.67
  EXPECT_EQ(entries[255], 255U);
}

TEST_P(LookupTableTest, GammaMustBeAboveZero) {
  LogCapture log;
  for (const double gamma : {0.0, -0.0, 1e-17, -1e-17, -0.5, -kInfinity}) {
    EXPECT_EQ(gammaTable(gamma), Entries{});
    const std::string line = "[CurveEngine::checkGamma] gamma is " + std::to_string(gamma) + ", check your code!";
    EXPECT_EQ(log.take(), errors({line.c_str(), line.c_str()}));
  }
}

TEST_P(LookupTableTest, GammaAtItsExtremesFollowsTheFormula) {
  LogCapture log;
  // Every power of an exponent of 0 is 1, that of black too.
  EXPECT_THAT(gammaTable(kInfinity), Each(highest(bits())));
  // Infinity times 0 is no number, which is taken for 0, as is what a gamma makes that is no number.
  EXPECT_THAT(gammaTable(1e-10), Each(0U));
  EXPECT_THAT(gammaTable(kNaN), Each(0U));
  EXPECT_TRUE(log.take().empty());
}

// ---- Brightness

TEST_P(LookupTableTest, BrightnessMultipliesEveryValue) {
  for (const double brightness : {-1.0, -0.999, -0.5, -0.3, -0.001, 0.0, 1e-20, 0.1, 1.0 / 3, 0.5, 0.75, 1.0}) {
    EXPECT_EQ(brightnessTable(brightness), brightnessModel(bits(), brightness)) << brightness;
  }
}

TEST_P(LookupTableTest, BrightnessGoesFromBlackOverTheSameToTwice) {
  EXPECT_THAT(brightnessTable(-1.0), Each(0U));
  EXPECT_EQ(brightnessTable(0.0), everyValue(bits()));
  const Entries twice = brightnessTable(1.0);
  ASSERT_EQ(twice.size(), highest(bits()) + 1);
  EXPECT_EQ(twice[100], 200U);
  EXPECT_EQ(twice[middle(bits()) - 1], highest(bits()) - 1);
  EXPECT_EQ(twice[middle(bits())], highest(bits()));
}

TEST_P(LookupTableTest, BrightnessRoundsHalvesUp) {
  const Entries half = brightnessTable(-0.5);
  ASSERT_EQ(half.size(), highest(bits()) + 1);
  EXPECT_EQ(half[1], 1U);
  EXPECT_EQ(half[2], 1U);
  EXPECT_EQ(half[3], 2U);
  EXPECT_EQ(half[highest(bits())], middle(bits()));
}

// Just outside, far outside, and no number at all.
const double kOutsideUnitRange[] = {1.0000001, -1.0000001, 2.0, -2.0, 1e300, kInfinity, -kInfinity, kNaN};

TEST_P(LookupTableTest, BrightnessMustBeInItsRange) {
  LogCapture log;
  for (const double brightness : kOutsideUnitRange) {
    EXPECT_EQ(brightnessTable(brightness), Entries{});
    const std::string line = "[CurveEngine::checkBrightness] brightness is " + std::to_string(brightness) +
                             ", check your code! range: [-1.0,1.0]";
    EXPECT_EQ(log.take(), errors({line.c_str(), line.c_str()}));
  }
}

// ---- Contrast

TEST_P(LookupTableTest, ContrastSpreadsTheUpperHalfAndWhitensTheLower) {
  for (const double contrast : {-0.999, -0.5, -0.3, -0.001, 0.0, 0.1, 1.0 / 3, 0.5, 0.75, 1.0}) {
    EXPECT_EQ(contrastTable(contrast), contrastModel(bits(), contrast)) << contrast;
  }
}

TEST_P(LookupTableTest, ContrastOfMinusOneIsTheMiddleEverywhere) {
  EXPECT_THAT(contrastTable(-1.0), Each(middle(bits())));
}

TEST_P(LookupTableTest, ContrastMustBeInItsRange) {
  LogCapture log;
  for (const double contrast : kOutsideUnitRange) {
    EXPECT_EQ(contrastTable(contrast), Entries{});
    const std::string line =
        "[CurveEngine::checkContrast] contrast is " + std::to_string(contrast) + ", check your code! range: [-1.0,1.0]";
    EXPECT_EQ(log.take(), errors({line.c_str(), line.c_str()}));
  }
}

// ---- All in one

TEST_P(LookupTableTest, CombinedCurvesFollowEachOther) {
  for (const bool invert : {false, true}) {
    for (const double brightness : {-0.4, 0.0, 0.3, 1.7}) {
      for (const double contrast : {-0.6, 0.0, 0.5, 3.0}) {
        for (const double gamma : {0.7, 1.0, 2.2}) {
          EXPECT_EQ(combinedTable(brightness, contrast, gamma, invert),
                    combinedModel(bits(), brightness, contrast, gamma, invert))
              << brightness << ", " << contrast << ", " << gamma << ", " << invert;
        }
      }
    }
  }
}

TEST_P(LookupTableTest, CombinedNeutralCurvesChangeNothingOrInvert) {
  Entries inverted = everyValue(bits());
  for (std::uint32_t& value : inverted) {
    value = highest(bits()) - value;
  }
  for (const double gamma : {1.0, 1.0 + 1e-16, 0.0, -3.0, -kInfinity, kNaN}) {
    EXPECT_EQ(combinedTable(0.0, 0.0, gamma, false), everyValue(bits())) << gamma;
    EXPECT_EQ(combinedTable(1e-16, -1e-16, gamma, true), inverted) << gamma;
  }
}

TEST_P(LookupTableTest, CombinedContrastTreatsBothSidesAlike) {
  const Entries entries = combinedTable(0.0, 0.5, 1.0, false);
  ASSERT_EQ(entries.size(), highest(bits()) + 1);
  EXPECT_EQ(entries[0], 0U);  // cut: half a range below
  EXPECT_EQ(entries[middle(bits()) - 10], middle(bits()) - 15);
  EXPECT_EQ(entries[middle(bits())], middle(bits()));
  EXPECT_EQ(entries[middle(bits()) + 10], middle(bits()) + 15);
  EXPECT_EQ(entries[highest(bits())], highest(bits()));
}

TEST_P(LookupTableTest, CombinedCurvesRefuseNothing) {
  LogCapture log;
  // Cut to white before brightness halves it: contrast comes first.
  const Entries entries = combinedTable(-0.5, 1e6, 1.0, false);
  ASSERT_EQ(entries.size(), highest(bits()) + 1);
  EXPECT_EQ(entries[middle(bits()) - 1], 0U);
  EXPECT_EQ(entries[middle(bits())], middle(bits()) / 2);
  EXPECT_EQ(entries[middle(bits()) + 100], middle(bits()));
  EXPECT_THAT(combinedTable(-7.0, 0.0, 1.0, false), Each(0U));
  EXPECT_THAT(combinedTable(0.0, kNaN, 1.0, false), Each(0U));
  EXPECT_THAT(combinedTable(kNaN, 0.0, 1.0, true), Each(highest(bits())));
  const Entries most = combinedTable(kInfinity, 0.0, 1.0, false);
  ASSERT_EQ(most.size(), highest(bits()) + 1);
  EXPECT_EQ(most[0], 0U);  // 0 times infinity is no number
  EXPECT_EQ(most[1], highest(bits()));
  EXPECT_TRUE(log.take().empty());
}

TEST_P(LookupTableTest, BrightnessContrastIsTheSameWithoutGamma) {
  for (const double brightness : {-0.4, 0.0, 0.3}) {
    for (const double contrast : {-1.0, -0.6, 0.0, 0.5}) {
      EXPECT_EQ(brightnessContrastTable(brightness, contrast), combinedModel(bits(), brightness, contrast, 1.0, false))
          << brightness << ", " << contrast;
    }
  }
}

// ---- Threshold

TEST_P(LookupTableTest, ThresholdHasTwoLevels) {
  for (const std::uint32_t threshold : {0U, 1U, 77U, middle(bits()), highest(bits())}) {
    for (const bool invert : {false, true}) {
      EXPECT_EQ(thresholdTable(static_cast<std::int32_t>(threshold), invert), thresholdModel(bits(), threshold, invert))
          << threshold << ", " << invert;
    }
  }
}

TEST_P(LookupTableTest, ThresholdMustBeAValueOfASample) {
  LogCapture log;
  const std::string function = "[CurveEngine::createLookupTable" + std::to_string(bits()) + "_Threshold]";
  for (const std::int32_t threshold :
       {-1, static_cast<std::int32_t>(highest(bits())) + 1, std::numeric_limits<std::int32_t>::min(),
        std::numeric_limits<std::int32_t>::max()}) {
    EXPECT_EQ(thresholdTable(threshold, true), Entries{});
    const std::string line = function + " threshold:" + std::to_string(threshold) + " is out range";
    EXPECT_EQ(log.take(), errors({line.c_str(), line.c_str()}));
  }
}

// ---- The caller's own

// Every entry different from its neighbours and from its index, and bytes behind that no table may take.
std::vector<std::uint8_t> stream(std::uint32_t bits, Entries& entries) {
  entries = modelOf(bits, [=](std::uint32_t i) { return (i * 77 + 5) & highest(bits); });
  std::vector<std::uint8_t> bytes = support::bytesOf(entries, bits);
  bytes.resize(bytes.size() + 100, 0xEE);
  return bytes;
}

TEST_P(LookupTableTest, ByteStreamIsCopied) {
  Entries entries;
  const std::vector<std::uint8_t> bytes = stream(bits(), entries);
  EXPECT_EQ(byteStreamTable(bytes, bytes.size() - 100), entries);
  EXPECT_EQ(byteStreamTable(bytes, bytes.size()), entries);
  EXPECT_EQ(byteStreamTable(bytes, std::numeric_limits<std::uint64_t>::max()), entries);
}

TEST_P(LookupTableTest, ByteStreamStaysWhenTheCallersArrayChanges) {
  Entries entries;
  std::vector<std::uint8_t> bytes = stream(bits(), entries);
  const Table table(KvTileImage_CreateLookupTable_ByteStream(bits(), bytes.data(), bytes.size()));
  std::fill(bytes.begin(), bytes.end(), std::uint8_t{0});
  EXPECT_EQ(entriesOf(table, bits()), entries);
}

// For 16 bits as many bytes as there are entries are enough to be accepted; twice as many are read.
TEST_P(LookupTableTest, ByteStreamNeedsAsManyBytesAsEntries) {
  LogCapture log;
  Entries entries;
  const std::vector<std::uint8_t> bytes = stream(bits(), entries);
  const std::uint64_t least = highest(bits()) + 1;
  EXPECT_EQ(byteStreamTable(bytes, least), entries);
  EXPECT_TRUE(log.take().empty());
  const std::string line = "[CurveEngine::createLookupTable" + std::to_string(bits()) + "_ByteStream] bytes < 256";
  for (const std::uint64_t byteCount : {least - 1, std::uint64_t{0}}) {
    EXPECT_EQ(byteStreamTable(bytes, byteCount), Entries{});
    EXPECT_EQ(log.take(), errors({line.c_str(), line.c_str()}));
  }
}

TEST_P(LookupTableTest, ByteStreamMayNotBeNull) {
  LogCapture log;
  EXPECT_EQ(KvTileImage_CreateLookupTable_ByteStream(bits(), nullptr, 0), nullptr);
  const std::string line =
      "[CurveEngine::createLookupTable" + std::to_string(bits()) + "_ByteStream] lookupTableBuf is nullptr";
  EXPECT_EQ(log.take(), errors({line.c_str()}));
}

// ---- Depths

TEST(LookupTableDepthTest, OtherThanEightAndSixteenIsRefusedSilently) {
  LogCapture log(ember_logger::trace);
  const std::vector<std::uint8_t> bytes(131072);
  for (const std::uint32_t bits : {0U, 1U, 2U, 4U, 7U, 9U, 12U, 15U, 24U, 32U, 64U, 264U, 0xFFFFFFFFU}) {
    EXPECT_EQ(KvTileImage_CreateLookupTable_Gamma(bits, 1.0), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_Gamma(bits, -1.0), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_Brightness(bits, 5.0), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_Contrast(bits, 5.0), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_BrightnessContrastGamma(bits, 0.1, 0.1, 0.1, true), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_BrightnessContrast(bits, 0.1, 0.1), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_Threshold(bits, -1, false), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTable_ByteStream(bits, bytes.data(), bytes.size()), nullptr);
    EXPECT_EQ(KvTileImage_CreateLookupTableMap(bits), nullptr);
  }
  EXPECT_TRUE(log.take().empty());
}

}  // namespace
