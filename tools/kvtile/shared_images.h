// What there is of shared images, found out without holding one.
#ifndef KVTILE_SHARED_IMAGES_H
#define KVTILE_SHARED_IMAGES_H

#include <optional>
#include <string>
#include <vector>

#include "picture.h"

namespace kvtile {

// Throws WrongUsage for an identifier that the library refuses, with the reason.
void requireIdentifier(const std::string& identifier);

// Size and samples of the shared image of that identifier, and what it is taken for; nothing if it has no descriptor
// that can be read.
std::optional<Picture> sharedPicture(const std::string& identifier);

enum class Holding { Held, NotHeld, NoLockFile, Unknown };

// The files by which the processes of this user share images. They are looked at; none is made, changed or removed.
// docs/files-on-disk.md tells what they are.
class SharingFiles {
 public:
  SharingFiles();

  // The identifiers that have a descriptor, in alphabetical order.
  std::vector<std::string> identifiers() const;

  bool hasDescriptor(const std::string& identifier) const;
  std::string descriptor(const std::string& identifier) const;

  // Whether processes hold the images of these identifiers, one answer for each. Meanwhile no process makes an image,
  // attaches to one or lets go of one: waits for that for half a minute at most. Throws a Failure if it does not come
  // to that, and Interrupted when asked to stop.
  std::vector<Holding> holdings(const std::vector<std::string>& identifiers) const;

 private:
  Holding holding(const std::string& identifier) const;

  std::string folder_;
};

}  // namespace kvtile

#endif
