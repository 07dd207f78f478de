// What several commands check, and tell.
#ifndef KVTILE_CHECKS_H
#define KVTILE_CHECKS_H

#include <string>

#include "console.h"
#include "picture.h"
#include "reader.h"
#include "turn.h"

namespace kvtile {

// The format that the name of an output tells. Throws WrongUsage if it tells none.
FileFormat requireKnownExtension(const std::string& output);

// Throws a Failure if the samples cannot be widened to 8 bits. Widening counts from zero to the highest value, and a
// palette's numbers have to stay what they are.
void requireWidenable(const std::string& input, const Picture& picture);

// Throws a Failure if `turn` cannot be made. Two packed layouts do not come through the library's turning; see
// KvTileImage_RotateAndMirror.
void requireTurnable(const std::string& input, const PixelFormat& format, const Turn& turn);

// A note if the file has more pictures than the one that is read.
void tellOfOtherPages(Reader& reader, const std::string& input, Console& console);

// Throws a Failure if standard output has not taken all that was printed.
void requirePrinted();

}  // namespace kvtile

#endif
