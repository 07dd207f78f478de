// Many processes that share a few images at random, and are killed at random.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

constexpr std::uint32_t kProcesses = 8;
constexpr std::uint32_t kRounds = 200;
constexpr int kImages = 4;

// One of the processes; a killed one is followed by another that does the rest of its rounds.
class Slot {
 public:
  Slot(const Program& program, std::string prefix, std::uint32_t number)
      : program_(program), prefix_(std::move(prefix)), number_(number) {}

  void start(std::uint32_t seed) {
    worker_ = std::make_unique<Worker>(program_);
    std::ostringstream command;
    command << "stress " << seed << ' ' << kRounds - done_ << ' ' << prefix_ << ' ' << number_ << ' ' << kProcesses;
    worker_->tell(command.str());
    doneBefore_ = done_;
  }

  // Its next answer: false when it has finished, or has failed the test.
  bool step() {
    const std::string answer = worker_->answer();
    if (answer.starts_with("round ")) {
      done_ = doneBefore_ + static_cast<std::uint32_t>(std::stoul(answer.substr(6)));
      return true;
    }
    if (answer != "finished") {
      ADD_FAILURE() << answer << " in process " << worker_->id() << '\n' << worker_->log(3);
    }
    finished_ = true;
    return false;
  }

  void kill() { worker_->kill(); }

  // Whether it ended as a program does.
  int end() { return worker_->end(); }

  bool finished() const { return finished_; }

 private:
  const Program& program_;
  std::string prefix_;
  std::uint32_t number_;
  std::uint32_t done_ = 0;
  std::uint32_t doneBefore_ = 0;
  bool finished_ = false;
  std::unique_ptr<Worker> worker_;
};

TEST(SharingStressTest, LosesNoPixelAndLeavesNoFile) {
  const char* const wanted = std::getenv("KVTILEIMAGE_STRESS_SEED");
  const auto seed = static_cast<std::uint32_t>(wanted != nullptr ? std::strtoul(wanted, nullptr, 10) : 20260101);
  SCOPED_TRACE("KVTILEIMAGE_STRESS_SEED=" + std::to_string(seed));
  std::mt19937 random(seed);
  const Home home;
  const Program program(home);
  const SharedImages images(home);
  std::vector<std::unique_ptr<Slot>> slots;
  while (slots.size() < kProcesses) {
    slots.push_back(std::make_unique<Slot>(program, images.id(""), static_cast<std::uint32_t>(slots.size())));
    slots.back()->start(static_cast<std::uint32_t>(random()));
  }
  int kills = 0;
  for (bool running = true; running;) {
    running = false;
    for (const auto& slot : slots) {
      // Several rounds of one before the next, so that they do not keep step.
      for (auto i = random() % 8; i > 0 && !slot->finished() && slot->step(); --i) {
      }
      if (!slot->finished() && random() % 12 == 0) {
        slot->kill();
        slot->start(static_cast<std::uint32_t>(random()));
        ++kills;
      }
      running = running || !slot->finished();
    }
  }
  EXPECT_GT(kills, 20);
  for (const auto& slot : slots) {
    EXPECT_EQ(slot->end(), 0);
  }
  {
    const auto last = cleaningWorker(program);
    // What a process that was killed while it let go has left is found under its identifier.
    for (int image = 0; image < kImages; ++image) {
      EXPECT_EQ(last->ask("share a " + images.id(std::to_string(image)) + " 64 64"), "made");
      EXPECT_EQ(last->ask("unload a"), "unloaded");
    }
  }
  EXPECT_THAT(program.backingFiles(), IsEmpty());
  EXPECT_THAT(images.files(), IsEmpty());
}

}  // namespace
