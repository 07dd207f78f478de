// Tone curves: the steps that the user asks for, made into one table by the library.
#ifndef KVTILE_TONE_H
#define KVTILE_TONE_H

#include <cstdint>
#include <string>
#include <vector>

#include "handles.h"
#include "library_messages.h"

namespace kvtile {

// One change of tones.
struct ToneStep {
  // The first four in the order in which the library takes them together.
  enum class Kind { Contrast, Brightness, Gamma, Invert, Threshold, File };

  Kind kind = Kind::Invert;
  double amount = 0;  // contrast and brightness from -1 to 1, gamma above 0, the lowest value that a threshold keeps
  std::string file;   // of a curve
};

// What the user wants to be done to the tones.
struct ToneRequest {
  std::vector<ToneStep> steps;          // one after the other; none: nothing is done
  std::vector<std::uint32_t> channels;  // the samples of a pixel by their numbers; none: those that carry colour

  bool changes() const { return !steps.empty(); }
};

// The step in words: "gamma 2.2".
std::string describeStep(const ToneStep& step);

// An entry for each value that a sample of 8 or 16 bits can have. A value; never changes.
class ToneCurve {
 public:
  // What the steps make of each value. Steps that the library takes together are rounded once, all others after each
  // step. Throws a Failure: of a curve's file, or one that names `input`, the picture it is for, where a threshold is
  // outside the values or the library fails.
  static ToneCurve fromSteps(const std::vector<ToneStep>& steps, std::uint32_t bits, const std::string& input,
                             LibraryMessages& messages);

  std::uint32_t bits() const { return entries_.size() == 256 ? 8 : 16; }
  std::uint32_t highest() const { return static_cast<std::uint32_t>(entries_.size() - 1); }

  std::uint16_t at(std::uint32_t value) const { return entries_[value]; }

  // The same change for samples that count down from white: the highest value minus what becomes of the highest value
  // minus the sample.
  ToneCurve forWhiteIsZero() const;

  // The library's table; null if there is no memory.
  TableHandle table() const;

 private:
  explicit ToneCurve(std::vector<std::uint16_t> entries) : entries_(std::move(entries)) {}

  std::vector<std::uint16_t> entries_;
};

}  // namespace kvtile

#endif
