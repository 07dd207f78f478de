// Requests to stop while the program reads, turns, tones, counts and writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/terminal.h"

namespace {

using support::pattern;
using support::Process;
using support::Result;
using support::Sandbox;
using support::Terminal;
using testing::ElementsAre;

struct Attempt {
  Result result;
  std::string text;
  std::vector<std::string> screen;
};

// A command that has a phase of this name.
std::vector<std::string> commandWith(const std::string& phase) {
  std::vector<std::string> command = {KVTILE_PROGRAM, "rotate", "90"};
  if (phase == "toning") {
    command = {KVTILE_PROGRAM, "tone", "--gamma", "2"};
  } else if (phase == "counting") {
    command = {KVTILE_PROGRAM, "histogram"};
  }
  command.insert(command.end(), {"--budget", "4G", "in.png", "out.png"});
  return command;
}

// Starts `command` and sends `signal` once the terminal shows `phase`.
Attempt stopDuring(const Sandbox& sandbox, const std::vector<std::string>& command, const std::string& phase,
                   int signal) {
  Terminal terminal;
  Process process(command, sandbox.folder(), terminal.slave());
  EXPECT_TRUE(terminal.waitFor(phase));
  process.send(signal);
  Attempt attempt;
  attempt.result = process.wait();
  attempt.text = terminal.text();
  attempt.screen = terminal.screen();
  return attempt;
}

// On a busy machine the system can bring the terminal's text so late that the work is done by then. One attempt in
// time is enough; a program that cannot be stopped has none.
constexpr int kAttempts = 8;

class InterruptionTest : public testing::TestWithParam<std::tuple<const char*, int>> {};

TEST_P(InterruptionTest, StopsWithOneLineAndLeavesNothing) {
  const auto [phase, signal] = GetParam();
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(3600, 3600, 3, 16)));
  Attempt attempt = stopDuring(sandbox, commandWith(phase), phase, signal);
  for (int again = 1; again < kAttempts && attempt.result.status == 0; ++again) {
    ASSERT_EQ(std::remove(sandbox.path("out.png").c_str()), 0);
    attempt = stopDuring(sandbox, commandWith(phase), phase, signal);
  }
  EXPECT_EQ(attempt.result.signal, 0);
  EXPECT_EQ(attempt.result.status, 1);
  EXPECT_THAT(attempt.screen,
              ElementsAre("kvtile: out.png: interrupted before it was complete; run the command again to make it"));
  EXPECT_THAT(sandbox.names(), ElementsAre("in.png"));
}

INSTANTIATE_TEST_SUITE_P(Phases, InterruptionTest,
                         testing::Combine(testing::Values("reading", "turning", "toning", "counting", "writing"),
                                          testing::Values(SIGINT, SIGTERM, SIGHUP)),
                         [](const auto& parameter) {
                           const int signal = std::get<1>(parameter.param);
                           return std::string(std::get<0>(parameter.param)) + (signal == SIGINT    ? "Int"
                                                                               : signal == SIGTERM ? "Term"
                                                                                                   : "Hup");
                         });

// Seen by what is never shown.
TEST(InterruptionTest, ReadingIsStoppedBeforeTurningBegins) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(3600, 3600, 3, 16)));
  bool stopped = false;
  for (int number = 0; number < kAttempts && !stopped; ++number) {
    const Attempt attempt = stopDuring(sandbox, commandWith("reading"), "reading", SIGINT);
    stopped = attempt.result.status == 1 && attempt.text.find("turning") == std::string::npos;
    std::remove(sandbox.path("out.png").c_str());
  }
  EXPECT_TRUE(stopped);
}

// The picture would be 57,600 pixels wide and high and take minutes: the threads that make its rows stop as well.
TEST(InterruptionTest, ThreadsThatResizeAreStopped) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(3600, 3600, 3, 16)));
  for (const char* threads : {"1", "3"}) {
    const Attempt attempt =
        stopDuring(sandbox, {KVTILE_PROGRAM, "resize", "--scale", "16", "--threads", threads, "in.png", "out.tif"},
                   "writing", SIGINT);
    EXPECT_EQ(attempt.result.status, 1);
    EXPECT_THAT(attempt.screen,
                ElementsAre("kvtile: out.tif: interrupted before it was complete; run the command again to make it"));
    EXPECT_THAT(sandbox.names(), ElementsAre("in.png"));
  }
}

// nohup ignores the hang-up on the program's behalf.
TEST(InterruptionTest, AnIgnoredRequestStaysIgnored) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(1500, 1500, 3, 8)));
  Process process({"sh", "-c", std::string("trap '' HUP; exec ") + KVTILE_PROGRAM + " rotate 90 in.png out.png"},
                  sandbox.folder());
  while (process.running() && sandbox.names().size() < 2) {
    usleep(200);
  }
  ASSERT_TRUE(process.running()) << "it finished before it could be caught at work";
  process.send(SIGHUP);
  EXPECT_EQ(process.wait().status, 0);
  EXPECT_THAT(sandbox.names(), ElementsAre("in.png", "out.png"));
}

}  // namespace
