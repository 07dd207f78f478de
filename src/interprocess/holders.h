// Who holds shared images, as their lock files tell.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cache/file_mapping_dir_helper.h"
#include "interprocess/shared_image_files.h"
#include "platform/files.h"
#include "platform/lock_files.h"

namespace interprocess {

// A shared image that has no holder: nobody becomes one while the claim lives. Null if there is no lock file either.
using Claim = std::unique_ptr<platform::FileLock>;

// The claim on the image of this lock file; nothing if someone holds it, or that cannot be found out.
std::optional<Claim> claimUnlessHeld(const std::wstring& lockFile);

// The backing files of the shared images that have a holder; their maker may be dead. The lock files of those without
// one stay locked while the object lives: who wants to hold such an image waits until then, and finds its files
// complete or gone.
class Holders final : public cache::FileUsers {
 public:
  // Those of the user's shared images.
  static std::unique_ptr<const cache::FileUsers> find();

  explicit Holders(const SharedImageFiles& files);

  bool use(const std::wstring& file) const override { return keysOfFilesInUse_.contains(platform::fileKey(file)); }

 private:
  void addFilesOf(const std::wstring& identifier, const SharedImageFiles& files);

  std::set<std::wstring> keysOfFilesInUse_;
  std::vector<Claim> withoutHolder_;
};

}  // namespace interprocess
