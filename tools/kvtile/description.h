// Pictures in words, for `kvtile info` and for messages.
#ifndef KVTILE_DESCRIPTION_H
#define KVTILE_DESCRIPTION_H

#include <string>
#include <vector>

#include "picture.h"
#include "reader.h"

namespace kvtile {

// What a reader knows beyond the picture.
struct FileDescription {
  std::string path;
  std::string format;
  std::string meaning;
  std::string compression;
  std::string layout;
  std::uint64_t pages = 1;
};

std::vector<Fact> describe(const FileDescription& file, const Picture& picture);

// "3 x 8 bits, unsigned"
std::string describeSamples(const PixelFormat& format);

// "RGB + straight alpha"
std::string describeMeaning(Photometric photometric, const std::vector<Extra>& extras);

// The value in words, or "code 12345".
std::string describePhotometric(Photometric photometric);
std::string describeCompression(std::uint16_t compression);

std::string describeResolution(const std::optional<Resolution>& resolution);

}  // namespace kvtile

#endif
