#include "terminal.h"

#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace support {

Terminal::Terminal() {
  struct winsize size = {};
  size.ws_col = 80;
  size.ws_row = 24;
  if (openpty(&master_, &slave_, nullptr, nullptr, &size) != 0) {
    throw std::runtime_error("no pseudo terminal");
  }
  reader_ = std::thread([this] { readAll(); });
}

Terminal::~Terminal() {
  text();
  close(master_);
}

void Terminal::type(const std::string& keys) const {
  if (write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    throw std::runtime_error("the pseudo terminal takes no keys");
  }
}

bool Terminal::waitFor(const std::string& word) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < end) {
    {
      const std::lock_guard lock(mutex_);
      if (text_.find(word) != std::string::npos) {
        return true;
      }
    }
    usleep(200);
  }
  return false;
}

std::string Terminal::text() {
  if (slave_ >= 0) {
    // With nobody left to write the reader comes to an end.
    close(slave_);
    slave_ = -1;
    reader_.join();
  }
  return text_;
}

std::vector<std::string> Terminal::screen() {
  std::vector<std::string> lines(1);
  std::size_t column = 0;
  for (const char c : text()) {
    if (c == '\r') {
      column = 0;
    } else if (c == '\n') {
      lines.emplace_back();
    } else {
      std::string& line = lines.back();
      line.resize(std::max(line.size(), column + 1), ' ');
      line[column++] = c;
    }
  }
  for (std::string& line : lines) {
    line.resize(line.find_last_not_of(' ') + 1);
  }
  while (!lines.empty() && lines.back().empty()) {
    lines.pop_back();
  }
  return lines;
}

void Terminal::readAll() {
  char buffer[4096];
  for (ssize_t got = 0; (got = read(master_, buffer, sizeof buffer)) > 0;) {
    const std::lock_guard lock(mutex_);
    text_.append(buffer, static_cast<std::size_t>(got));
  }
}

}  // namespace support
