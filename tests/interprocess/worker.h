// Copies of the worker program, each with folders of its own, and their processes.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/scratch_folder.h"

namespace interprocess {

using Names = std::vector<std::string>;

inline constexpr const char* kBackingFileExtension = ".korvaneFileMapping";

// What a user has: a folder for the programs' data. Removed with the programs that are installed in it and with what
// the library keeps for them.
class Home {
 public:
  Home();
  ~Home();
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  // A folder for programs and whatever else the test needs.
  const std::filesystem::path& folder() const { return scratch_.path(); }

  // The library's folder in the user's data. On Windows all tests share it.
  std::filesystem::path dataFolder() const { return userData_ / "Korvane" / "KvTileImage"; }

  std::filesystem::path configurationFile() const { return dataFolder() / "KvTileImage_FileMapingConfig.json"; }

  const std::filesystem::path& userData() const { return userData_; }

  // That no other home has.
  std::string uniqueName() const { return folder().filename().string(); }

 private:
  support::ScratchFolder scratch_;
  std::filesystem::path userData_;
};

// The worker under a name of its own. To the library each copy is a program for itself.
class Program {
 public:
  // Installs it in `subfolder` of the home. No program of another test has the same file name.
  explicit Program(const Home& home, const std::string& name = "worker", const std::string& subfolder = "bin");

  const std::filesystem::path& path() const { return path_; }
  const support::ChildProcess::Environment& environment() const { return environment_; }

  // Where the lock file is.
  std::filesystem::path hostCacheRoot() const { return path_.parent_path() / "KvTileImageFileMappingCaches"; }

  // Those that exist below `root`, a folder that holds cache folders.
  std::vector<std::filesystem::path> cacheFolders(const std::filesystem::path& root) const;

  // Those below the user's data; one unless this program has not been used yet.
  std::vector<std::filesystem::path> cacheFolders() const { return cacheFolders(defaultRoot_); }

  // The names of the backing files in all of cacheFolders().
  Names backingFiles() const;

  // Puts a file into the one cache folder, as if a process had left it there: its path.
  std::filesystem::path leave(const std::string& name) const;

 private:
  std::filesystem::path defaultRoot_;
  std::filesystem::path path_;
  support::ChildProcess::Environment environment_;
};

// A process of a program.
class Worker {
 public:
  explicit Worker(const Program& program);

  // Sends a command and returns the answer, "ended" if there is none any more.
  std::string ask(const std::string& command);

  // The two halves of it.
  void tell(const std::string& command) { process_.writeLine(command); }
  std::string answer();

  // How many of the messages of the library so far contain `text`.
  int logged(const std::string& text) const;

  // Whether a message with all of `texts` has been logged as an error.
  bool loggedError(const std::vector<std::string>& texts) const;

  // "4 text" and so on, for messages of that severity or above.
  std::string log(int severity = 0) const;

  std::uint32_t id() const { return process_.id(); }
  support::ChildProcess& process() { return process_; }
  void kill() { process_.kill(); }

  // Ends it as its main function does: its exit code.
  int end();

 private:
  support::ChildProcess process_;
  Names log_;
};

// Identifiers of a test's own, and the files that the images of those have beside their backing files.
class SharedImages {
 public:
  explicit SharedImages(const Home& home) : folder_(home.dataFolder() / "interprocessId"), prefix_(home.uniqueName()) {}

  // Removes what is left.
  ~SharedImages();
  SharedImages(const SharedImages&) = delete;
  SharedImages& operator=(const SharedImages&) = delete;

  std::string id(const std::string& name) const { return prefix_ + '/' + name; }

  std::filesystem::path descriptor(const std::string& name) const {
    return folder_ / "json" / prefix_ / (name + ".json");
  }
  std::filesystem::path lockFile(const std::string& name) const {
    return folder_ / "lockfiles" / prefix_ / (name + ".lockfile");
  }

  // The names of all descriptors and lock files.
  Names files() const;

 private:
  std::filesystem::path folder_;
  std::string prefix_;
};

// A new process of the program that has cleaned up after the dead ones; it has an image of its own in memory. Another
// process may be the one that does it for all programs of the user, until it ends.
std::unique_ptr<Worker> cleaningWorker(const Program& program);

// The names of the backing files `first` to `first + count - 1` of a process, in alphabetical order.
Names backingFileNames(std::uint32_t processId, unsigned first, unsigned count);

// The lists together in alphabetical order.
Names together(Names a, const Names& b);

// The names in a folder in alphabetical order; none if there is no such folder.
Names namesIn(const std::filesystem::path& folder);

// Every backing file in the folder and below.
std::vector<std::filesystem::path> backingFilesBelow(const std::filesystem::path& folder);

// Waits until `holds` does; false if it has not within a time that suffices for anything.
template <class Condition>
bool eventually(Condition holds) {
  const auto end = std::chrono::steady_clock::now() + support::ChildProcess::kPatience;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
  }
  return true;
}

// An image of four tiles of 1 MiB; what "make" wants to know of it behind its name.
inline constexpr const char* kFourTiles = " 256 16384 files";

// One in memory.
inline constexpr const char* kInMemory = " 64 64 heap";

}  // namespace interprocess
