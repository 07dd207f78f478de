#include "sandbox.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace support {
namespace {

std::string contents(std::FILE* file) {
  std::rewind(file);
  std::string text;
  char buffer[4096];
  for (std::size_t got = 0; (got = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    text.append(buffer, got);
  }
  return text;
}

// Between fork and exec: a test runner in the background hands ignored signals on.
[[noreturn]] void become(const std::vector<std::string>& command, const std::string& folder, int in, int out, int err) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    std::signal(signal, SIG_DFL);
  }
  dup2(in >= 0 ? in : open("/dev/null", O_RDONLY), STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  std::vector<char*> arguments;
  for (const std::string& word : command) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  setenv("XDG_DATA_HOME", dataFolderFor(folder).c_str(), 1);
  if (chdir(folder.c_str()) == 0) {
    execvp(arguments[0], arguments.data());
  }
  _exit(127);
}

}  // namespace

std::string dataFolderFor(const std::string& folder) { return folder + ".data"; }

Process::Process(const std::vector<std::string>& command, const std::string& folder, int terminal, int input)
    : out_(std::tmpfile()), err_(std::tmpfile()) {
  if (out_ == nullptr || err_ == nullptr) {
    throw std::runtime_error("no temporary file");
  }
  const int err = terminal >= 0 ? terminal : fileno(err_.get());
  pid_ = fork();
  if (pid_ == 0) {
    become(command, folder, input, fileno(out_.get()), err);
  }
  if (pid_ < 0) {
    throw std::runtime_error("cannot fork");
  }
}

Process::~Process() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void Process::send(int signal) const { kill(pid_, signal); }

bool Process::running() const {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

std::string Process::firstLine() const {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < end) {
    // Read where it is: the position in the file is the program's, too.
    char text[4096];
    const ssize_t got = pread(fileno(out_.get()), text, sizeof text, 0);
    const std::string line(text, got > 0 ? static_cast<std::size_t>(got) : 0);
    if (const std::size_t length = line.find('\n'); length != std::string::npos) {
      return line.substr(0, length);
    }
    usleep(1000);
  }
  return "";
}

Result Process::wait() {
  int status = 0;
  struct rusage usage = {};
  if (wait4(pid_, &status, 0, &usage) != pid_) {
    throw std::runtime_error("cannot wait");
  }
  pid_ = -1;
  Result result;
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.peakKilobytes = usage.ru_maxrss;
  result.out = contents(out_.get());
  result.err = contents(err_.get());
  return result;
}

Sandbox::Sandbox() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvtile-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("no temporary folder");
  }
  folder_ = pattern;
}

Sandbox::~Sandbox() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
  std::filesystem::remove_all(dataFolderFor(folder_), ignored);
}

std::vector<std::string> Sandbox::names() const {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
    found.push_back(entry.path().filename().string());
  }
  std::sort(found.begin(), found.end());
  return found;
}

void Sandbox::write(const std::string& name, const std::string& bytes) const {
  std::ofstream file(path(name), std::ios::binary);
  file << bytes;
  if (!file.flush()) {
    throw std::runtime_error("cannot write " + name);
  }
}

std::string Sandbox::read(const std::string& name) const {
  std::ifstream file(path(name), std::ios::binary);
  if (!file) {
    throw std::runtime_error("cannot read " + name);
  }
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void Sandbox::keepImagesIn(const std::string& folder) const {
  const std::filesystem::path library = dataFolderFor(folder_) + "/Korvane/KvTileImage";
  std::filesystem::create_directories(library);
  std::ofstream file(library / "KvTileImage_FileMapingConfig.json");
  file << R"({"desc": {"rootDirList": [")" << folder << R"("]}})";
}

// It finds its libraries in the folder "lib" beside its own.
void Sandbox::copyProgram() {
  const std::filesystem::path original = KVTILE_PROGRAM;
  std::filesystem::create_directory(path("bin"));
  program_ = path("bin/kvtile");
  std::filesystem::copy_file(original, program_);
  std::filesystem::create_directory_symlink(original.parent_path().parent_path() / "lib", path("lib"));
}

Result Sandbox::kvtile(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), program_);
  return run(arguments);
}

Result Sandbox::run(const std::vector<std::string>& command) const { return Process(command, folder_).wait(); }

long Sandbox::differingPixels(const std::string& a, const std::string& b) const {
  // Status 2 means that the pictures could not be compared.
  const Result result = run({"compare-im6.q16", "-metric", "AE", a, b, "null:"});
  const bool number = !result.err.empty() && std::isdigit(static_cast<unsigned char>(result.err[0])) != 0;
  return (result.status == 0 || result.status == 1) && number ? std::lround(std::strtod(result.err.c_str(), nullptr))
                                                              : -1;
}

}  // namespace support
