// A folder of a test's own, and programs started in it.
#ifndef KVTILE_TESTS_SANDBOX_H
#define KVTILE_TESTS_SANDBOX_H

#include <sys/types.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace support {

struct Result {
  int status = -1;  // exit status; -1 if a signal ended the program
  int signal = 0;
  long peakKilobytes = 0;
  std::string out;
  std::string err;
};

// The folder that stands in for the user's data folder where programs are started in `folder`.
std::string dataFolderFor(const std::string& folder);

// A program on its way, with a data folder of the sandbox's. Killed if it is not waited for.
class Process {
 public:
  // `terminal`: a pseudo terminal's descriptor that becomes its stderr; -1: stderr is collected in a file.
  // `input`: a descriptor that becomes its stdin; -1: stdin is at its end.
  Process(const std::vector<std::string>& command, const std::string& folder, int terminal = -1, int input = -1);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void send(int signal) const;
  bool running() const;
  pid_t id() const { return pid_; }

  // Waits until there is a whole line on its stdout, for at most 20 seconds. The line; empty if there is none.
  std::string firstLine() const;

  Result wait();

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  std::unique_ptr<std::FILE, Close> out_;
  std::unique_ptr<std::FILE, Close> err_;
  pid_t pid_ = -1;
};

class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& folder() const { return folder_; }
  std::string path(const std::string& name) const { return folder_ + "/" + name; }

  // The names in the folder, hidden ones too, in alphabetical order.
  std::vector<std::string> names() const;

  void write(const std::string& name, const std::string& bytes) const;
  std::string read(const std::string& name) const;

  // Has the library keep the images of programs started here in `folder`, a path.
  void keepImagesIn(const std::string& folder) const;

  // The kvtile that is started here.
  const std::string& program() const { return program_; }

  // Makes that a copy in the sandbox. Programs at one path clean up after each other, whoever runs them: tests that
  // look at what dead processes leave must not have others at work beside them.
  void copyProgram();

  // Starts kvtile or another program in the folder and waits for it.
  Result kvtile(std::vector<std::string> arguments) const;
  Result run(const std::vector<std::string>& command) const;

  // Pixels in which two picture files differ, counted by ImageMagick; -1 if it cannot tell.
  long differingPixels(const std::string& a, const std::string& b) const;

 private:
  std::string folder_;
  std::string program_ = KVTILE_PROGRAM;
};

}  // namespace support

#endif
