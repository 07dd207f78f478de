// What a tone curve changes in a picture: its samples, or the colours of its palette, and what depends on them.
#ifndef KVTILE_TONING_H
#define KVTILE_TONING_H

#include <cstdint>
#include <string>
#include <vector>

#include "image.h"
#include "picture.h"
#include "tone.h"

namespace kvtile {

// Throws a Failure that names `input` unless the tones of the picture can be counted and changed: those of unsigned
// samples of 8 and 16 bits, and those of palettes.
void requireTones(const std::string& input, const Picture& picture);

// The bits of the picture's tones: of its samples, or 8 of a component of its palette's colours.
std::uint32_t toneBits(const Picture& picture);

// True for samples of grey that counts down from white.
bool countsFromWhite(const Picture& picture, std::uint32_t channel);

// The channels that the request names, in ascending order, or those that carry colour. Palettes have three: red, green
// and blue. Throws a Failure that names `input` where the picture does not have one of them.
std::vector<std::uint32_t> chosenChannels(const std::string& input, const Picture& picture, const ToneRequest& request);

// Throws a Failure that names `input` where a curve is to change the colours of a picture whose samples are no tones,
// and the request does not say which of them are meant.
void requireMeaning(const std::string& input, const Picture& picture, const ToneRequest& request);

// How to change a picture.
struct Toning {
  Picture picture;                 // afterwards
  ChannelCurves curves;            // for the samples; none where the palette changes instead
  std::vector<std::string> notes;  // what the user should know
};

// Plans the change of `picture`. Curves are meant for tones as they are seen, so that grey samples that count down from
// white get the curve upside down. Throws a Failure that names `input`, or the file of a curve.
Toning planToning(const std::string& input, const Picture& picture, const ToneRequest& request,
                  LibraryMessages& messages);

// True if the curves give another value of a sample the value that the transparent colour now has there: more colours
// than before can be transparent.
bool widensColourKey(const Picture& before, const Toning& toning);

}  // namespace kvtile

#endif
