#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "support/child_process_handles.h"

namespace support {
namespace {

constexpr int kCannotRun = 127;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  ~Descriptor() {
    if (number_ >= 0) {
      close(number_);
    }
  }
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }

  int get() const { return number_; }

 private:
  int number_;
};

void require(bool success, const char* step) {
  if (!success) {
    throw std::runtime_error(std::string(step) + ": " + std::generic_category().message(errno));
  }
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

// The variables of this process, those in `added` replaced.
std::vector<std::string> merged(ChildProcess::Environment added) {
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    const std::size_t equals = text.find('=');
    added.emplace(text.substr(0, equals), equals == std::string::npos ? "" : text.substr(equals + 1));
  }
  std::vector<std::string> variables;
  variables.reserve(added.size());
  for (const auto& [name, value] : added) {
    variables.push_back(name);
    variables.back().append(1, '=').append(value);
  }
  return variables;
}

}  // namespace

struct ChildProcess::Handles::Members {
  pid_t id = -1;
  Descriptor in;  // a socket: writing to it when the child is gone raises no signal
  Descriptor out;
  std::optional<int> exitCode;
};

ChildProcess::Handles::Handles(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                               const Environment& environment)
    : members_(std::make_unique<Members>()) {
  std::array<int, 2> in{};
  require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in.data()) == 0, "socketpair");
  members_->in = Descriptor(in[0]);
  const Descriptor childIn(in[1]);
  std::array<int, 2> out{};
  require(pipe2(out.data(), O_CLOEXEC) == 0, "pipe");
  members_->out = Descriptor(out[0]);
  const Descriptor childOut(out[1]);

  std::vector<std::string> command{program.string()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const std::vector<std::string> variables = merged(environment);
  const std::vector<char*> argv = pointersTo(command);
  const std::vector<char*> envp = pointersTo(variables);
  const pid_t parent = getpid();
  members_->id = fork();
  require(members_->id >= 0, "fork");
  if (members_->id == 0) {
    // Only calls that are safe in the copy of a process with threads.
    const bool bound = prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
    if (bound && dup2(childIn.get(), STDIN_FILENO) >= 0 && dup2(childOut.get(), STDOUT_FILENO) >= 0) {
      execve(argv[0], argv.data(), envp.data());
    }
    _exit(kCannotRun);
  }
}

ChildProcess::Handles::~Handles() = default;

std::uint32_t ChildProcess::Handles::id() const { return static_cast<std::uint32_t>(members_->id); }

bool ChildProcess::Handles::read(std::string& text, std::chrono::milliseconds patience) {
  pollfd readable{members_->out.get(), POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(patience.count())) <= 0) {
    return true;
  }
  std::array<char, 4096> part{};
  const ssize_t count = ::read(members_->out.get(), part.data(), part.size());
  if (count > 0) {
    text.append(part.data(), static_cast<std::size_t>(count));
  }
  return count > 0 || (count < 0 && errno == EINTR);
}

void ChildProcess::Handles::write(const std::string& text) {
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t count = send(members_->in.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno != EINTR) {
      return;
    }
    sent += static_cast<std::size_t>(count > 0 ? count : 0);
  }
}

void ChildProcess::Handles::closeInput() { members_->in = Descriptor(); }

void ChildProcess::Handles::kill() { ::kill(members_->id, SIGKILL); }

std::optional<int> ChildProcess::Handles::exitCode() {
  int status = 0;
  if (!members_->exitCode && waitpid(members_->id, &status, WNOHANG) == members_->id) {
    members_->exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  return members_->exitCode;
}

}  // namespace support
