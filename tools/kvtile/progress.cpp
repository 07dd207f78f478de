#include "progress.h"

#include <algorithm>

#include "errors.h"
#include "system.h"

namespace kvtile {
namespace {

constexpr std::chrono::milliseconds kRefresh(80);
constexpr std::size_t kPhaseColumns = 8;  // "reading" and a blank
constexpr int kWidestBar = 40;

}  // namespace

void Progress::begin(const std::string& phase, std::uint64_t steps) {
  phase_ = phase;
  steps_ = steps;
  done_ = 0;
  show();
}

void Progress::advance() {
  ++done_;
  check();
  if (!console_.showsStatus()) {
    return;
  }
  if (done_ == steps_ || std::chrono::steady_clock::now() - shownAt_ >= kRefresh) {
    show();
  }
}

void Progress::check() {
  if (system::stopRequested()) {
    throw Interrupted();
  }
}

void Progress::show() {
  if (console_.showsStatus()) {
    console_.setStatus(progressLine(phase_, done_, steps_, system::terminalColumns() - 1));
    shownAt_ = std::chrono::steady_clock::now();
  }
}

std::string progressLine(const std::string& phase, std::uint64_t done, std::uint64_t steps, int columns) {
  const double part = steps == 0 ? 1.0 : std::min(1.0, static_cast<double>(done) / static_cast<double>(steps));
  std::string percent = std::to_string(static_cast<int>(part * 100)) + "%";
  percent.insert(0, 4 - percent.size(), ' ');
  std::string line = phase;
  line.resize(std::max(line.size() + 1, kPhaseColumns), ' ');
  const int bar = std::min(kWidestBar, columns - static_cast<int>(line.size() + percent.size()) - 3);
  if (bar > 3) {
    const auto filled = static_cast<std::size_t>(part * bar);
    line.append("[").append(filled, '#').append(static_cast<std::size_t>(bar) - filled, '.').append("] ");
  }
  line += percent;
  return line.substr(0, static_cast<std::size_t>(std::max(columns, 0)));
}

}  // namespace kvtile
