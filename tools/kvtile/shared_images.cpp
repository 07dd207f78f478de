#include "shared_images.h"

#include <kvtileimage/KvTileImage.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>

#include "errors.h"
#include "image.h"
#include "progress.h"
#include "system.h"
#include "text.h"

namespace kvtile {
namespace {

constexpr char kDescriptorFolder[] = "interprocessId/json/";
constexpr char kDescriptorExtension[] = ".json";
constexpr char kLockFileFolder[] = "interprocessId/lockfiles/";
constexpr char kLockFileExtension[] = ".lockfile";
constexpr char kSharingLockFile[] = "KvTileImage_Interprocess.filelock";

// As long as the library waits.
constexpr std::chrono::seconds kPatience(30);
constexpr std::chrono::milliseconds kPause(5);

bool beginsWithDrive(const std::string& identifier) {
  return identifier.size() > 1 && std::isalpha(static_cast<unsigned char>(identifier[0])) != 0 && identifier[1] == ':';
}

bool leadsUpwards(const std::string& identifier) {
  constexpr char kSeparators[] = "/\\";
  for (std::size_t begin = 0; begin <= identifier.size();) {
    const std::size_t end = std::min(identifier.find_first_of(kSeparators, begin), identifier.size());
    if (identifier.compare(begin, end - begin, "..") == 0) {
      return true;
    }
    begin = end + 1;
  }
  return false;
}

// Takes the lock that processes work on shared images under. False if there is no such file: nobody shares any then.
bool lockSharing(system::FileLock& lock, const std::string& path) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < end) {
    int error = 0;
    switch (lock.tryTake(path, error)) {
      case system::FileLock::Outcome::Taken:
        return true;
      case system::FileLock::Outcome::NoFile:
        return false;
      case system::FileLock::Outcome::Failed:
        throw Failure(path, std::string("cannot be locked (") + std::strerror(error) + ")", "see to its access rights");
      case system::FileLock::Outcome::InUse:
        break;
    }
    Progress::check();
    system::pause(kPause);
  }
  throw Failure(path, "has been kept locked by another process for 30 seconds",
                "it may have been stopped in the middle of its work: let it go on, or end it");
}

}  // namespace

void requireIdentifier(const std::string& identifier) {
  const char* const kAdvice = "choose another identifier, such as scans/page-1";
  if (identifier.empty()) {
    throw WrongUsage("ID", "the identifier is empty", kAdvice);
  }
  if (!isText(identifier)) {
    throw WrongUsage(identifier, "the identifier is no UTF-8 text", kAdvice);
  }
  if (identifier[0] == '/' || identifier[0] == '\\' || beginsWithDrive(identifier)) {
    throw WrongUsage(identifier, "an identifier must not begin with a slash, a backslash or a drive letter", kAdvice);
  }
  if (leadsUpwards(identifier)) {
    throw WrongUsage(identifier, "an identifier must not have '..' between slashes", kAdvice);
  }
}

std::optional<Picture> sharedPicture(const std::string& identifier) {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t sampleformat = 0;
  PixelFormat pixels = {0, 0, SampleFormat::Unsigned};
  const bool found = KvTileImage_InterprocessB_GetInfo(identifier.c_str(), &width, &height, &pixels.samples,
                                                       &pixels.bits, &sampleformat);
  // The library takes numbers that a descriptor does not have for zeros.
  if (!found || width == 0 || height == 0 || pixels.samples == 0 || pixels.bits == 0) {
    return std::nullopt;
  }
  pixels.sampleFormat = sampleFormatOf(sampleformat);
  return Picture::assumed(width, height, pixels);
}

SharingFiles::SharingFiles() : folder_(system::userDataFolder() + "Korvane/KvTileImage/") {}

std::vector<std::string> SharingFiles::identifiers() const {
  constexpr auto kSkip = std::filesystem::directory_options::skip_permission_denied;
  constexpr std::size_t kExtension = sizeof kDescriptorExtension - 1;
  const std::string folder = folder_ + kDescriptorFolder;
  std::vector<std::string> found;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator entry(folder, kSkip, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string path = entry->path().string();
    std::error_code unknown;
    const bool descriptor = path.ends_with(kDescriptorExtension) && path.size() > folder.size() + kExtension &&
                            std::filesystem::is_regular_file(entry->symlink_status(unknown));
    if (descriptor) {
      found.push_back(path.substr(folder.size(), path.size() - folder.size() - kExtension));
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

bool SharingFiles::hasDescriptor(const std::string& identifier) const {
  return system::nameExists(descriptor(identifier));
}

std::string SharingFiles::descriptor(const std::string& identifier) const {
  return folder_ + kDescriptorFolder + identifier + kDescriptorExtension;
}

std::vector<Holding> SharingFiles::holdings(const std::vector<std::string>& identifiers) const {
  // Who lets go of an image tries to lock it alone, and is not its last holder if that fails: none must do so now.
  system::FileLock lock;
  if (!lockSharing(lock, folder_ + kSharingLockFile)) {
    return std::vector<Holding>(identifiers.size(), Holding::NotHeld);
  }
  std::vector<Holding> result;
  result.reserve(identifiers.size());
  for (const std::string& identifier : identifiers) {
    result.push_back(holding(identifier));
  }
  return result;
}

Holding SharingFiles::holding(const std::string& identifier) const {
  switch (system::lockUseOf(folder_ + kLockFileFolder + identifier + kLockFileExtension)) {
    case system::LockUse::Shared:
      return Holding::Held;
    case system::LockUse::NoFile:
      return Holding::NoLockFile;
    case system::LockUse::Unknown:
      return Holding::Unknown;
    default:
      // A process that has it for itself alone is about to remove what nobody holds.
      return Holding::NotHeld;
  }
}

}  // namespace kvtile
