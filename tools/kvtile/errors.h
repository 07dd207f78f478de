// What ends a command early.
#ifndef KVTILE_ERRORS_H
#define KVTILE_ERRORS_H

#include <exception>
#include <string>
#include <utility>

namespace kvtile {

// Something the command cannot do. The user reads it as one line: "kvtile: <file>: <what>; <advice>".
class Failure : public std::exception {
 public:
  // `advice` says what to do about it and may be empty where there is nothing to say.
  Failure(std::string file, const std::string& what, std::string advice)
      : file_(std::move(file)), advice_(std::move(advice)), text_(file_ + ": " + what) {
    if (!advice_.empty()) {
      text_ += "; " + advice_;
    }
  }

  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string file_;
  std::string advice_;
  std::string text_;
};

// A command line that asks for something no file could give; exit status 2 instead of 1.
class WrongUsage : public Failure {
 public:
  using Failure::Failure;
};

// Thrown where a loop notices that the program has been asked to stop.
class Interrupted : public std::exception {
 public:
  const char* what() const noexcept override { return "interrupted"; }
};

}  // namespace kvtile

#endif
