#include "support/child_process.h"

#include <stdexcept>
#include <thread>

#include "support/child_process_handles.h"

namespace support {
namespace {

using std::chrono::milliseconds;

// How long to wait for words of a child that may end without any.
constexpr milliseconds kMoment{2};

class Deadline {
 public:
  explicit Deadline(std::string purpose) : purpose_(std::move(purpose)) {}

  // Throws when the time is over.
  milliseconds left() const {
    const auto left = std::chrono::duration_cast<milliseconds>(end_ - std::chrono::steady_clock::now());
    if (left <= milliseconds::zero()) {
      throw std::runtime_error("waited in vain for " + purpose_);
    }
    return left;
  }

 private:
  std::string purpose_;
  std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + ChildProcess::kPatience;
};

}  // namespace

ChildProcess::ChildProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                           const Environment& environment)
    : program_(program.filename().string()), handles_(std::make_unique<Handles>(program, arguments, environment)) {}

ChildProcess::~ChildProcess() {
  try {
    kill();
  } catch (const std::exception&) {  // the system has not ended it within the time
  }
}

std::uint32_t ChildProcess::id() const { return handles_->id(); }

std::optional<std::string> ChildProcess::readLine() {
  const Deadline deadline("a line from " + program_);
  for (bool more = true;;) {
    const std::size_t end = unread_.find('\n');
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      if (line.ends_with('\r')) {
        line.pop_back();
      }
      return line;
    }
    if (!more) {
      return std::nullopt;  // a line without an end is what a killed child was about to say
    }
    more = handles_->read(unread_, deadline.left());
  }
}

void ChildProcess::writeLine(const std::string& line) { handles_->write(line + '\n'); }

void ChildProcess::closeInput() { handles_->closeInput(); }

void ChildProcess::kill() {
  if (!handles_->exitCode()) {
    handles_->kill();
    wait();
  }
}

int ChildProcess::wait() {
  const Deadline deadline("the end of " + program_);
  for (bool more = true;;) {
    if (const auto code = handles_->exitCode()) {
      return *code;
    }
    deadline.left();
    if (more) {
      more = handles_->read(unread_, kMoment);
    } else {
      std::this_thread::sleep_for(kMoment);
    }
  }
}

}  // namespace support
