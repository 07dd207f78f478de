// How far a command has come, shown on the console's status line, and the place where requests to stop are noticed.
#ifndef KVTILE_PROGRESS_H
#define KVTILE_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

#include "console.h"

namespace kvtile {

class Progress {
 public:
  explicit Progress(Console& console) : console_(console) {}
  ~Progress() { console_.clearStatus(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // A part of the work with its own percentage, "reading" for example.
  void begin(const std::string& phase, std::uint64_t steps);

  // Called after each of the steps; throws Interrupted if the program has been asked to stop.
  void advance();

  // The same between steps that take long.
  static void check();

 private:
  void show();

  Console& console_;
  std::string phase_;
  std::uint64_t steps_ = 0;
  std::uint64_t done_ = 0;
  std::chrono::steady_clock::time_point shownAt_;
};

// The text of the status line: "reading [#####     ]  50%", at most `columns` wide.
std::string progressLine(const std::string& phase, std::uint64_t done, std::uint64_t steps, int columns);

}  // namespace kvtile

#endif
