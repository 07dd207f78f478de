#include "console.h"

#include <algorithm>
#include <cstdio>

#include "system.h"

namespace kvtile {
namespace {

void put(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

std::string printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return text;
}

}  // namespace

Console::Console(bool verbose, bool quiet)
    : verbose_(verbose), quiet_(quiet), showsStatus_(!quiet && system::stderrIsTerminal()) {}

Console::~Console() { clearStatus(); }

void Console::error(const std::string& text) { line(text); }

void Console::report(const std::string& text) { line(text); }

void Console::note(const std::string& text) { notes_.push_back(text); }

void Console::showNotes() {
  if (!quiet_) {
    std::for_each(notes_.begin(), notes_.end(), [this](const std::string& note) { line(note); });
  }
  notes_.clear();
}

void Console::detail(const std::string& text) {
  if (verbose_) {
    line(text);
  }
}

void Console::setStatus(const std::string& text) {
  const std::lock_guard lock(mutex_);
  show(text);
}

void Console::clearStatus() {
  const std::lock_guard lock(mutex_);
  erase();
}

void Console::line(const std::string& text) {
  const std::lock_guard lock(mutex_);
  const std::string status = status_;
  erase();
  put("kvtile: " + printable(text) + "\n");
  show(status);
}

void Console::show(const std::string& status) {
  if (!showsStatus_ || status == status_) {
    return;
  }
  std::string shown = "\r" + status;
  if (status.size() < status_.size()) {
    shown.append(status_.size() - status.size(), ' ');
  }
  put(shown);
  status_ = status;
}

void Console::erase() {
  if (!status_.empty()) {
    // Blanks work on every terminal, erase sequences do not.
    std::string blanks(1, '\r');
    blanks.append(status_.size(), ' ');
    put(blanks + "\r");
    status_.clear();
  }
}

}  // namespace kvtile
