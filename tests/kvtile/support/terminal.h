// A pseudo terminal, to see what the program shows to people.
#ifndef KVTILE_TESTS_TERMINAL_H
#define KVTILE_TESTS_TERMINAL_H

#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace support {

// Takes what is written at all times, as a program whose terminal takes nothing would stand still.
class Terminal {
 public:
  // 80 columns.
  Terminal();
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  // The descriptor for the program.
  int slave() const { return slave_; }

  // As if a person typed it.
  void type(const std::string& keys) const;

  // Waits until `word` has appeared, for at most 20 seconds.
  bool waitFor(const std::string& word);

  // All that was written, once the program has ended.
  std::string text();

  // The lines that can be seen once the program has ended, trailing blanks and empty lines at the end left out.
  std::vector<std::string> screen();

 private:
  void readAll();

  int master_ = -1;
  int slave_ = -1;
  std::mutex mutex_;
  std::string text_;
  std::thread reader_;
};

}  // namespace support

#endif
