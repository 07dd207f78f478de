// The commands
//   limit file-size BYTES | files COUNT   limited, or failed: what this process may use from now on
//   become USER                           became, or failed: the user's number, also that of the group
//   fork COMMAND; COMMAND ...             a forked process carries them out and ends; its answers come before the
//                                         answer "ended CODE", negative if a signal ended it
//   start PROGRAM                         started, or failed: a program that shares this one's stdin and stdout
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "tile_worker.h"

namespace tile_worker {
namespace {

std::string limit(std::istream& words) {
  std::string what;
  rlim_t most = 0;
  words >> what >> most;
  const auto resource = what == "files" ? RLIMIT_NOFILE : RLIMIT_FSIZE;
  struct rlimit now {};
  getrlimit(resource, &now);
  now.rlim_cur = most;  // which can be raised again
  return setrlimit(resource, &now) == 0 ? "limited" : "failed";
}

std::string become(std::istream& words) {
  unsigned user = 0;
  words >> user;
  return setgid(user) == 0 && setuid(user) == 0 ? "became" : "failed";
}

std::string carryOutForked(std::istream& words) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (std::string command; std::getline(words, command, ';');) {
      say(answerTo(command));
    }
    std::exit(0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    return "failed";
  }
  return "ended " + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status));
}

std::string start(std::istream& words) {
  std::string program;
  std::getline(words >> std::ws, program);
  std::array<char*, 2> arguments{program.data(), nullptr};
  pid_t child = -1;
  const bool started = posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments.data(), environ) == 0;
  return started ? "started" : "failed";
}

}  // namespace

std::string systemAnswerTo(const std::string& name, std::istream& words) {
  if (name == "limit") {
    return limit(words);
  }
  if (name == "become") {
    return become(words);
  }
  if (name == "fork") {
    return carryOutForked(words);
  }
  return name == "start" ? start(words) : "unknown";
}

}  // namespace tile_worker
