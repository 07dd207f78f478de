#include "sharer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace support {
namespace {

std::vector<std::string> shareCommand(const Sandbox& sandbox, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {sandbox.program(), "share"});
  return arguments;
}

}  // namespace

Sharer::Pipe::Pipe() {
  int ends[2] = {};
  // Other programs must not have the end that keeps this one waiting.
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  read = ends[0];
  write = ends[1];
}

Sharer::Pipe::~Pipe() {
  close(read);
  if (write >= 0) {
    close(write);
  }
}

Sharer::Sharer(const Sandbox& sandbox, std::vector<std::string> arguments)
    : process_(shareCommand(sandbox, std::move(arguments)), sandbox.folder(), -1, pipe_.read),
      line_(process_.firstLine()) {}

Sharer::~Sharer() = default;

void Sharer::pressEnter() const {
  if (write(pipe_.write, "\n", 1) != 1) {
    throw std::runtime_error("the program reads no more");
  }
}

void Sharer::closeInput() {
  close(pipe_.write);
  pipe_.write = -1;
}

Result Sharer::end() {
  pressEnter();
  return process_.wait();
}

std::vector<std::string> filesOfSharedImages(const Sandbox& sandbox) {
  std::vector<std::string> found;
  for (const std::string& folder : {sandbox.folder(), dataFolderFor(sandbox.folder())}) {
    std::error_code missing;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder, missing)) {
      const std::string path = entry.path().string();
      const bool ofImage = path.find("/interprocessId/") != std::string::npos || path.ends_with(".korvaneFileMapping");
      if (ofImage && entry.is_regular_file()) {
        found.push_back(path.substr(folder.size()));
      }
    }
  }
  std::sort(found.begin(), found.end());
  return found;
}

std::vector<std::string> dataFolderState(const Sandbox& sandbox) {
  std::vector<std::string> state;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dataFolderFor(sandbox.folder()))) {
    struct stat status = {};
    lstat(entry.path().c_str(), &status);
    std::ostringstream text;
    text << entry.path().string() << ' ' << status.st_ino << ' ' << status.st_size << ' ' << status.st_mtim.tv_sec
         << '.' << status.st_mtim.tv_nsec << ' ' << status.st_mode;
    state.push_back(text.str());
  }
  std::sort(state.begin(), state.end());
  return state;
}

}  // namespace support
