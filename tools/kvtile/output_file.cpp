#include "output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "errors.h"
#include "system.h"

namespace kvtile {
namespace {

constexpr int kNamesToTry = 100;
constexpr std::size_t kLongestName = 255;  // of one entry in a folder, on every file system in use

// ".out.tif.123.part" beside "out.tif"; `attempt` makes further names.
std::string temporaryName(const std::string& path, int attempt) {
  std::string tail(".");
  tail.append(std::to_string(system::processId()));
  if (attempt > 0) {
    tail.append("-").append(std::to_string(attempt));
  }
  tail.append(".part");
  const std::string name = system::nameOf(path).substr(0, kLongestName - 1 - tail.size());
  return system::folderOf(path) + "/." + name + tail;
}

std::string unusedTemporaryPath(const std::string& path) {
  for (int attempt = 0; attempt < kNamesToTry; ++attempt) {
    std::string candidate = temporaryName(path, attempt);
    if (!system::nameExists(candidate)) {
      return candidate;
    }
  }
  return temporaryName(path, kNamesToTry);
}

void checkFolder(const std::string& path) {
  int error = 0;
  const std::string folder = system::folderOf(path);
  switch (system::kindOf(folder, error)) {
    case system::FileKind::Folder:
      return;
    case system::FileKind::Missing:
      if (error == ENOENT) {
        throw Failure(path, "there is no folder '" + folder + "'", "make it first");
      }
      throw Failure(path, "the folder '" + folder + "' cannot be used (" + std::strerror(error) + ")",
                    "choose another folder");
    default:
      throw Failure(path, "'" + folder + "' is not a folder", "choose another folder");
  }
}

[[noreturn]] void failAsTaken(const std::string& path) {
  throw Failure(path, "exists already", "give --force to replace it, or choose another name");
}

}  // namespace

void failToWrite(const std::string& path, int error) {
  const bool full = error == ENOSPC || error == EDQUOT || error == EFBIG;
  throw Failure(path, std::string("cannot be written (") + std::strerror(error) + ")",
                full ? "free some space or choose another disk" : "check the disk and its folder");
}

void OutputFile::check(const std::string& path, const std::string& input, bool replace) {
  checkFolder(path);
  if (!system::nameExists(path)) {
    return;
  }
  int error = 0;
  const system::FileKind kind = system::kindOf(path, error);
  if (kind == system::FileKind::Folder) {
    throw Failure(path, "is a folder", "name a file in it");
  }
  if (kind == system::FileKind::Other) {
    throw Failure(path, "is not an ordinary file", "choose another name");
  }
  if (replace) {
    return;
  }
  if (system::sameFile(path, input)) {
    throw Failure(path, "is the input file itself", "give --force to replace it, or choose another name");
  }
  failAsTaken(path);
}

OutputFile::OutputFile(const std::string& path, bool replace)
    : path_(path),
      replace_(replace),
      temporaryPath_(unusedTemporaryPath(path)),
      file_(File::createExclusively(temporaryPath_, path)) {
  if (replace_) {
    system::copyPermissions(path_, file_.stream());
  }
}

OutputFile::~OutputFile() {
  if (!committed_) {
    std::remove(temporaryPath_.c_str());
  }
}

void OutputFile::commit() {
  // What is about to be replaced may be the only good copy: the new one has to be safe first.
  const bool stored = replace_ && system::nameExists(path_) ? file_.sync() : file_.flush();
  if (!stored || !file_.close()) {
    failToWrite(path_, file_.error());
  }
  const int error =
      replace_ ? system::renameOver(temporaryPath_, path_) : system::renameToFreeName(temporaryPath_, path_);
  if (error == EEXIST && !replace_) {
    failAsTaken(path_);
  }
  if (error != 0) {
    failToWrite(path_, error);
  }
  committed_ = true;
}

}  // namespace kvtile
