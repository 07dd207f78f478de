// The program's lines on stderr: messages and, on a terminal, one status line that gives way to them.
#ifndef KVTILE_CONSOLE_H
#define KVTILE_CONSOLE_H

#include <mutex>
#include <string>
#include <vector>

namespace kvtile {

// Notes are for one thread, everything else for any.
class Console {
 public:
  // `quiet` drops notes and the status line, `verbose` lets details through.
  Console(bool verbose, bool quiet);
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  bool verbose() const { return verbose_; }
  bool showsStatus() const { return showsStatus_; }

  // One line each, "kvtile: <text>"; control characters, which names and codecs may bring along, show as '?'.
  void error(const std::string& text);   // why the command failed
  void detail(const std::string& text);  // what the codecs and the library say

  // What the user has asked for about the work that is done; shown when quiet too.
  void report(const std::string& text);

  // What the user should know about the result. Kept until there is one: a failure is a line of its own.
  void note(const std::string& text);
  void showNotes();

  // Shows `text` at the place of the last status; nothing where stderr is not a terminal.
  void setStatus(const std::string& text);
  void clearStatus();

 private:
  void line(const std::string& text);
  void show(const std::string& status);
  void erase();

  std::mutex mutex_;  // held while something is written
  bool verbose_;
  bool quiet_;
  bool showsStatus_;
  std::string status_;              // what is on the terminal now
  std::vector<std::string> notes_;  // not shown yet
};

}  // namespace kvtile

#endif
