// The commands of the program, apart from the command line.
#ifndef KVTILE_COMMANDS_H
#define KVTILE_COMMANDS_H

#include <cstdint>
#include <string>
#include <vector>

#include "console.h"
#include "image.h"
#include "resizing.h"
#include "tone.h"
#include "turn.h"

namespace kvtile {

// What every command that makes a file is told.
struct Request {
  std::string input;
  std::string output;
  ToneRequest tone;          // what happens to the tones
  std::uint64_t budget = 0;  // bytes; 0: the library's own
  Placement placement = Placement::Automatic;
  bool force = false;  // an existing output may be replaced
  bool widenTo8Bit = false;
  bool showStats = false;  // a line on the console: where the pixels were, memory and time taken
};

struct TransformRequest : Request {
  Turn turn;             // applied to the picture as a viewer shows it
  ResizeRequest resize;  // of the turned picture
};

// Makes `output` from `input`. Throws a Failure, or Interrupted when asked to stop; nothing is left behind then.
void transform(const TransformRequest& request, Console& console);

// Makes `output`, a picture of how often each tone occurs in `input`, and, if tones are to change, of how often they
// occur then and of the curve. Throws like transform().
void drawHistogram(const Request& request, Console& console);

// Prints what the files' headers say to standard output. Files that cannot be understood are reported on the console;
// false if there were any. Throws a Failure if standard output does not take the text.
bool showInfo(const std::vector<std::string>& files, Console& console);

}  // namespace kvtile

#endif
