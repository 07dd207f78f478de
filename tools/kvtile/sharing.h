// The commands that share pictures between processes, apart from the command line.
#ifndef KVTILE_SHARING_H
#define KVTILE_SHARING_H

#include <cstdint>
#include <string>

#include "console.h"
#include "image.h"

namespace kvtile {

struct ShareRequest {
  std::string identifier;
  std::string input;
  std::uint64_t budget = 0;                    // bytes; 0: the library's own
  Placement placement = Placement::Automatic;  // of the picture where it is changed on its way
  bool force = false;                          // the pixels of an image that others hold may be replaced
  bool widenTo8Bit = false;
  bool untilStopped = false;  // standard input is not looked at
};

struct AttachRequest {
  std::string identifier;
  std::string output;
  bool force = false;  // an existing output may be replaced
  bool widenTo8Bit = false;
};

// Reads `input` into a shared image, tells of it on standard output, and holds it until a line or the end of standard
// input, or a request to stop. Throws a Failure, or Interrupted when asked to stop before the picture is complete; the
// image is let go of in each case.
void sharePicture(const ShareRequest& request, Console& console);

// Makes `output` from a shared image. Throws a Failure, or Interrupted; no file is left behind then.
void attachPicture(const AttachRequest& request, Console& console);

// Prints which images are shared to standard output. Throws a Failure if it cannot be found out or printed.
void listShared(Console& console);

}  // namespace kvtile

#endif
