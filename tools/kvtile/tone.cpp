#include "tone.h"

#include <array>
#include <cstdio>

#include "curve_file.h"
#include "errors.h"

namespace kvtile {
namespace {

using Kind = ToneStep::Kind;

// Entries as the library takes them: bytes, or numbers of 16 bits in the machine's order.
TableHandle makeTable(const std::vector<std::uint16_t>& entries) {
  if (entries.size() == 256) {
    const std::vector<std::uint8_t> bytes(entries.begin(), entries.end());
    return TableHandle(KvTileImage_CreateLookupTable_ByteStream(8, bytes.data(), bytes.size()));
  }
  return TableHandle(KvTileImage_CreateLookupTable_ByteStream(16, reinterpret_cast<const std::uint8_t*>(entries.data()),
                                                              entries.size() * sizeof(std::uint16_t)));
}

// An image of one row that holds every value of a depth once, in ascending order. What the library makes of it is what
// it makes of every image, so that it does all the arithmetic.
class Ramp {
 public:
  Ramp(std::uint32_t bits, const std::string& input, LibraryMessages& messages)
      : bits_(bits), count_(1U << bits), input_(input), messages_(messages) {
    messages_.forget();
    image_.reset(KvTileImage_Alloc(count_, 1, 1, bits, KVTI_SAMPLEFORMAT_UINT, 0));
    require(image_ != nullptr);
    std::vector<std::uint16_t> values;
    for (std::uint32_t value = 0; value < count_; ++value) {
      values.push_back(static_cast<std::uint16_t>(value));
    }
    put(values);
  }

  void combine(double brightness, double contrast, double gamma, bool invert) {
    require(KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image_.get(), brightness, contrast, gamma,
                                                                         invert, nullptr));
  }

  void threshold(double amount) {
    if (amount > count_ - 1) {
      throw Failure(input_,
                    "a threshold of " + std::to_string(static_cast<std::uint32_t>(amount)) +
                        " is beyond its tones of " + std::to_string(bits_) + " bits",
                    "give --threshold 0 to " + std::to_string(count_ - 1));
    }
    require(KvTileImage_AdjustCurveOfAllChannels_Threshold(image_.get(), static_cast<std::int32_t>(amount), false,
                                                           nullptr));
  }

  void lookUp(const std::vector<std::uint16_t>& entries) {
    const TableHandle table = makeTable(entries);
    require(table != nullptr && KvTileImage_AdjustCurveOfAllChannels(image_.get(), table.get(), nullptr));
  }

  std::vector<std::uint16_t> values() {
    std::vector<std::uint16_t> values(count_);
    if (bits_ == 8) {
      std::vector<std::uint8_t> row(count_);
      require(KvTileImage_GetFullRowData(image_.get(), 0, row.data(), row.size()));
      values.assign(row.begin(), row.end());
    } else {
      require(KvTileImage_GetFullRowData(image_.get(), 0, reinterpret_cast<std::uint8_t*>(values.data()),
                                         values.size() * sizeof(std::uint16_t)));
    }
    return values;
  }

 private:
  void put(const std::vector<std::uint16_t>& values) {
    if (bits_ == 8) {
      const std::vector<std::uint8_t> row(values.begin(), values.end());
      require(KvTileImage_SetFullRowData(image_.get(), 0, row.data(), row.size()));
    } else {
      require(KvTileImage_SetFullRowData(image_.get(), 0, reinterpret_cast<const std::uint8_t*>(values.data()),
                                         values.size() * sizeof(std::uint16_t)));
    }
  }

  void require(bool done) const {
    if (!done) {
      throw Failure(input_, "the tone curve cannot be made" + messages_.reason(), "see --verbose for more");
    }
  }

  std::uint32_t bits_;
  std::uint32_t count_;
  const std::string& input_;
  LibraryMessages& messages_;
  ImageHandle image_;
};

using StepIterator = std::vector<ToneStep>::const_iterator;

bool isCombined(const ToneStep& step) { return step.kind <= Kind::Invert; }

// Applies the steps from `first` on that fit one call of the library: each kind once, in its order. Returns the step
// behind them.
StepIterator combine(Ramp& ramp, StepIterator first, StepIterator end) {
  double brightness = 0;
  double contrast = 0;
  double gamma = 1;
  bool invert = false;
  StepIterator step = first;
  for (; step != end && isCombined(*step) && (step == first || step->kind > (step - 1)->kind); ++step) {
    switch (step->kind) {
      case Kind::Contrast:
        contrast = step->amount;
        break;
      case Kind::Brightness:
        brightness = step->amount;
        break;
      case Kind::Gamma:
        gamma = step->amount;
        break;
      default:
        invert = true;
        break;
    }
  }
  ramp.combine(brightness, contrast, gamma, invert);
  return step;
}

}  // namespace

std::string describeStep(const ToneStep& step) {
  constexpr std::array<const char*, 6> kNames = {"contrast", "brightness", "gamma", "invert", "threshold", "curve"};
  std::string text = kNames[static_cast<std::size_t>(step.kind)];
  if (step.kind == Kind::File) {
    return text + " " + step.file;
  }
  if (step.kind == Kind::Invert) {
    return text;
  }
  std::array<char, 32> number = {};
  std::snprintf(number.data(), number.size(), " %.6g", step.amount);
  return text + number.data();
}

ToneCurve ToneCurve::fromSteps(const std::vector<ToneStep>& steps, std::uint32_t bits, const std::string& input,
                               LibraryMessages& messages) {
  Ramp ramp(bits, input, messages);
  for (auto step = steps.begin(); step != steps.end();) {
    if (isCombined(*step)) {
      step = combine(ramp, step, steps.end());
      continue;
    }
    if (step->kind == Kind::Threshold) {
      ramp.threshold(step->amount);
    } else {
      ramp.lookUp(readCurveFile(step->file, bits));
    }
    ++step;
  }
  return ToneCurve(ramp.values());
}

ToneCurve ToneCurve::forWhiteIsZero() const {
  std::vector<std::uint16_t> entries;
  for (std::uint32_t value = 0; value <= highest(); ++value) {
    entries.push_back(static_cast<std::uint16_t>(highest() - at(highest() - value)));
  }
  return ToneCurve(std::move(entries));
}

TableHandle ToneCurve::table() const { return makeTable(entries_); }

}  // namespace kvtile
