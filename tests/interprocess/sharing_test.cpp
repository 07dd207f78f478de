// Processes that share images: pixels, the order of letting go, processes that are killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// Two tiles of 8 x 4096 pixels or less.
constexpr const char* kTwoTiles = " 8 5000";

// Images of a program whose processes share them.
class SharingTest : public testing::Test {
 protected:
  std::string share(const std::string& size = kTwoTiles) const { return "share a " + images_.id("a") + size; }
  std::string attach() const { return "attach a " + images_.id("a"); }
  std::string probe() const { return "probe " + images_.id("a"); }

  // Nothing of any image, and no error, whatever process is asked.
  void expectNothingLeft() const {
    EXPECT_THAT(program_.backingFiles(), IsEmpty());
    EXPECT_THAT(images_.files(), IsEmpty());
  }

  const Home home_;
  const Program program_{home_};
  const SharedImages images_{home_};
};

// ---- Pixels

TEST_F(SharingTest, ShowsPixelsBothWays) {
  Worker maker(program_);
  Worker other(program_);
  ASSERT_EQ(maker.ask(share()), "made");
  EXPECT_EQ(other.ask("info " + images_.id("a")), "8 x 5000");
  ASSERT_EQ(other.ask(attach()), "attached");
  ASSERT_EQ(maker.ask("write a 1"), "written");
  EXPECT_EQ(other.ask("read a 1"), "same");
  ASSERT_EQ(other.ask("write-columns a 2"), "written");
  EXPECT_EQ(maker.ask("read a 2"), "same");
  EXPECT_EQ(maker.ask("set a 7 4999 33"), "set");
  EXPECT_EQ(other.ask("get a 7 4999"), "33");
  EXPECT_EQ(other.ask("set a 7 4999 34"), "set");
  EXPECT_EQ(maker.ask("get a 7 4999"), "34") << "while both have the tile mapped";
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  EXPECT_EQ(other.log(3), "");
  expectNothingLeft();
}

TEST_F(SharingTest, ShowsPixelsToAnotherProgram) {
  const Program viewer(home_, "viewer");
  Worker maker(program_);
  Worker other(viewer);
  ASSERT_EQ(maker.ask(share(" 3000 3200")), "made");  // tiles in both directions
  ASSERT_EQ(maker.ask("write a 5"), "written");
  ASSERT_EQ(other.ask(attach()), "attached");
  EXPECT_EQ(other.ask("read a 5"), "same");
  EXPECT_THAT(program_.backingFiles(), SizeIs(2));
  EXPECT_THAT(viewer.backingFiles(), IsEmpty());
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  EXPECT_EQ(other.ask("read a 5"), "same");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  expectNothingLeft();
}

TEST_F(SharingTest, AttachesToTheSameFormatInsteadOfMakingAnImage) {
  Worker first(program_);
  Worker second(program_);
  ASSERT_EQ(first.ask(share()), "made");
  ASSERT_EQ(first.ask("write a 1"), "written");
  ASSERT_EQ(second.ask(share()), "made");
  EXPECT_EQ(second.ask("read a 1"), "same");
  EXPECT_EQ(second.log(3), "");
  EXPECT_EQ(first.ask("unload a"), "unloaded");
  EXPECT_EQ(second.ask("read a 1"), "same");
  EXPECT_EQ(second.ask("unload a"), "unloaded");
  expectNothingLeft();
}

TEST_F(SharingTest, MakesAnotherImageForAnotherFormat) {
  Worker first(program_);
  Worker second(program_);
  Worker third(program_);
  ASSERT_EQ(first.ask(share()), "made");
  ASSERT_EQ(first.ask("write a 1"), "written");
  ASSERT_EQ(second.ask(share(" 8 5001")), "made");
  EXPECT_EQ(second.logged("is not unique]"), 1);
  ASSERT_EQ(second.ask("write a 2"), "written");
  ASSERT_EQ(third.ask(attach()), "attached");
  EXPECT_EQ(third.ask("read a 2"), "same");
  EXPECT_EQ(first.ask("read a 1"), "same");
  // The last one to go takes the files of its own image along; those of the other one go with the process's clean-up.
  EXPECT_EQ(first.ask("unload a"), "unloaded");
  EXPECT_EQ(second.ask("unload a"), "unloaded");
  EXPECT_EQ(third.ask("read a 2"), "same");
  EXPECT_EQ(third.ask("unload a"), "unloaded");
  EXPECT_EQ(program_.backingFiles(), backingFileNames(first.id(), 0, 2));
  EXPECT_THAT(images_.files(), IsEmpty());
  first.end();
  second.end();
  third.end();
  cleaningWorker(program_);
  expectNothingLeft();
}

// ---- Letting go

class SharingOrderTest : public SharingTest, public testing::WithParamInterface<std::array<int, 3>> {};

TEST_P(SharingOrderTest, TakesTheFilesAlongWithTheLast) {
  std::array<std::unique_ptr<Worker>, 3> workers;
  for (auto& worker : workers) {
    worker = std::make_unique<Worker>(program_);
  }
  ASSERT_EQ(workers[0]->ask(share()), "made");
  ASSERT_EQ(workers[1]->ask(attach()), "attached");
  ASSERT_EQ(workers[2]->ask(share()), "made");
  ASSERT_EQ(workers[1]->ask("write a 3"), "written");
  const auto& order = GetParam();
  for (std::size_t i = 0; i < order.size(); ++i) {
    Worker& worker = *workers[static_cast<std::size_t>(order[i])];
    EXPECT_EQ(worker.ask("read a 3"), "same");
    EXPECT_EQ(program_.backingFiles(), backingFileNames(workers[0]->id(), 0, 2));
    EXPECT_THAT(images_.files(), ElementsAre("a.json", "a.lockfile"));
    EXPECT_EQ(worker.ask("unload a"), "unloaded");
    EXPECT_EQ(worker.logged("has Ownership"), i == 2 ? 2 : 0);
  }
  expectNothingLeft();
}

using Order = std::array<int, 3>;

std::vector<Order> allOrders() {
  std::vector<Order> orders{{0, 1, 2}};
  for (Order next = orders.back(); std::next_permutation(next.begin(), next.end());) {
    orders.push_back(next);
  }
  return orders;
}

std::string nameOf(const testing::TestParamInfo<Order>& order) {
  constexpr std::array<const char*, 3> kNames{"Maker", "Attached", "Joined"};
  std::string name;
  for (const int worker : order.param) {
    name += kNames[static_cast<std::size_t>(worker)];
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(, SharingOrderTest, testing::ValuesIn(allOrders()), nameOf);

// ---- Processes that are killed

TEST_F(SharingTest, GoesOnWhenItsMakerIsKilled) {
  auto maker = std::make_unique<Worker>(program_);
  const Program viewer(home_, "viewer");
  Worker reader(viewer);
  ASSERT_EQ(maker->ask(share()), "made");
  ASSERT_EQ(maker->ask("write a 1"), "written");
  ASSERT_EQ(reader.ask(attach()), "attached");
  EXPECT_EQ(reader.ask("get a 0 0"), reader.ask("get a 0 0"));  // it has a tile mapped, and the other one not
  maker->kill();
  EXPECT_EQ(reader.ask("read a 1"), "same");

  // The maker's program cleans up after it and leaves what the reader holds.
  const auto cleaning = cleaningWorker(program_);
  EXPECT_EQ(cleaning->logged("is being used by other process!"), 2) << cleaning->log();
  EXPECT_EQ(reader.ask("read a 1"), "same");
  EXPECT_EQ(reader.ask("write a 2"), "written");
  ASSERT_EQ(cleaning->ask(attach()), "attached");
  EXPECT_EQ(cleaning->ask("read a 2"), "same");
  EXPECT_EQ(reader.ask("unload a"), "unloaded");
  EXPECT_EQ(cleaning->ask("read a 2"), "same");
  EXPECT_EQ(cleaning->ask("unload a"), "unloaded");
  expectNothingLeft();
}

TEST_F(SharingTest, TakesItsFilesAlongWhenItsMakerWasKilledAndTheReaderLetsGo) {
  auto maker = std::make_unique<Worker>(program_);
  Worker reader(program_);
  ASSERT_EQ(maker->ask(share()), "made");
  ASSERT_EQ(reader.ask(attach()), "attached");
  maker->tell("write-on a");
  ASSERT_EQ(maker->answer(), "writing");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  maker->kill();
  EXPECT_EQ(reader.ask("write a 9"), "written");
  EXPECT_EQ(reader.ask("read a 9"), "same");
  EXPECT_EQ(reader.ask("unload a"), "unloaded");
  expectNothingLeft();
}

TEST_F(SharingTest, StaysWithItsMakerWhenTheOtherIsKilled) {
  Worker maker(program_);
  auto other = std::make_unique<Worker>(program_);
  ASSERT_EQ(maker.ask(share()), "made");
  ASSERT_EQ(other->ask(attach()), "attached");
  other->tell("write-on a");
  ASSERT_EQ(other->answer(), "writing");
  other->kill();
  EXPECT_EQ(maker.ask("write a 4"), "written");
  EXPECT_EQ(maker.ask("read a 4"), "same");
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  expectNothingLeft();
}

TEST_F(SharingTest, LeavesARestOfAKilledPairToTheNextProcess) {
  auto maker = std::make_unique<Worker>(program_);
  auto other = std::make_unique<Worker>(program_);
  ASSERT_EQ(maker->ask(share()), "made");
  ASSERT_EQ(other->ask(attach()), "attached");
  maker->kill();
  other->kill();
  EXPECT_THAT(program_.backingFiles(), SizeIs(2));
  EXPECT_THAT(images_.files(), ElementsAre("a.json", "a.lockfile"));
  const auto cleaning = cleaningWorker(program_);
  EXPECT_EQ(cleaning->logged("a.json is not used, remove it!"), 1) << cleaning->log();
  EXPECT_EQ(cleaning->logged("is removed!"), 2);
  expectNothingLeft();
}

TEST_F(SharingTest, LeavesNothingOfAMakerThatIsKilledAtAnyMoment) {
  for (int delay = 0; delay < 12; ++delay) {
    Worker maker(program_);
    maker.tell(share(" 20 1000000"));  // 62 tiles
    std::this_thread::sleep_for(std::chrono::microseconds(delay * delay * 150));
    maker.kill();
    const auto cleaning = cleaningWorker(program_);
    expectNothingLeft();
    EXPECT_EQ(cleaning->ask(share(" 20 1000000")), "made");
    EXPECT_EQ(cleaning->ask("set a 1 999999 1"), "set");
    EXPECT_EQ(cleaning->ask("unload a"), "unloaded");
  }
  expectNothingLeft();
}

// A process that is killed when it has removed the lock file may leave the descriptor; whoever uses the identifier next
// makes a fresh image.
TEST_F(SharingTest, IsMadeAnewAfterAHolderWasKilledWhileItLetGo) {
  for (int delay = 0; delay < 12; ++delay) {
    Worker maker(program_);
    ASSERT_EQ(maker.ask(share(" 20 1000000")), "made");
    maker.tell("unload a");
    std::this_thread::sleep_for(std::chrono::microseconds(delay * delay * 40));
    maker.kill();
    const auto next = cleaningWorker(program_);
    EXPECT_EQ(next->ask(share(" 20 1000000")), "made");
    EXPECT_EQ(next->ask("get a 7 999999"), "0");
    EXPECT_EQ(next->ask("unload a"), "unloaded");
    expectNothingLeft();
  }
}

// ---- Looking for an image

TEST_F(SharingTest, IsValidWhileAProcessHoldsIt) {
  Worker maker(program_);
  Worker other(program_);
  EXPECT_EQ(other.ask(probe()), "invalid");
  ASSERT_EQ(maker.ask(share()), "made");
  EXPECT_EQ(other.ask(probe()), "valid");
  EXPECT_EQ(maker.ask(probe()), "valid");
  EXPECT_EQ(other.ask(probe()), "valid");
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  EXPECT_EQ(other.ask(probe()), "invalid");
  EXPECT_EQ(other.ask("info " + images_.id("a")), "unknown");
}

TEST_F(SharingTest, IsGoneAfterALookAtWhatADeadProcessLeft) {
  Worker other(program_);
  ASSERT_EQ(other.ask(std::string("make b") + kInMemory), "made");  // its clean-up is done
  auto maker = std::make_unique<Worker>(program_);
  ASSERT_EQ(maker->ask(share()), "made");
  maker->kill();
  EXPECT_EQ(other.ask("info " + images_.id("a")), "8 x 5000");
  EXPECT_EQ(other.ask(probe()), "valid");
  EXPECT_EQ(other.ask(probe()), "invalid");
  expectNothingLeft();
}

TEST_F(SharingTest, CanBeTakenOverFromADeadProcess) {
  Worker other(program_);
  ASSERT_EQ(other.ask(std::string("make b") + kInMemory), "made");
  auto maker = std::make_unique<Worker>(program_);
  ASSERT_EQ(maker->ask(share()), "made");
  ASSERT_EQ(maker->ask("write a 6"), "written");
  maker->kill();
  ASSERT_EQ(other.ask(attach()), "attached");
  EXPECT_EQ(other.ask("read a 6"), "same");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  expectNothingLeft();
}

// ---- Several at once

TEST_F(SharingTest, IsMadeOnceByProcessesThatStartTogether) {
  constexpr std::size_t kProcesses = 8;
  std::vector<std::unique_ptr<Worker>> workers;
  while (workers.size() < kProcesses) {
    workers.push_back(std::make_unique<Worker>(program_));
  }
  for (const auto& worker : workers) {
    worker->tell(share());
  }
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->answer(), "made");
    EXPECT_EQ(worker->logged("is not unique"), 0);
    EXPECT_EQ(worker->logged("files of FileMapping is missing"), 0);
  }
  EXPECT_THAT(program_.backingFiles(), SizeIs(2));
  EXPECT_EQ(workers[3]->ask("write a 3"), "written");
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->ask("read a 3"), "same");
  }
  for (const auto& worker : workers) {
    worker->tell("unload a");
  }
  int owners = 0;
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->answer(), "unloaded");
    owners += worker->logged("has Ownership. lockFilePath remove success:1");
  }
  EXPECT_EQ(owners, 1);
  expectNothingLeft();
}

TEST_F(SharingTest, IsCleanedUpByOneOfTwoProcesses) {
  auto maker = std::make_unique<Worker>(program_);
  ASSERT_EQ(maker->ask(share()), "made");
  maker->kill();
  const auto cleaning = cleaningWorker(program_);
  Worker second(program_);
  ASSERT_EQ(second.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(second.logged("[TileImageInterprocessRubbishCleaner::clearRubbish] not clear cache!"), 1);
  EXPECT_EQ(second.logged("[TileImageInterprocessRubbishCleaner::clearRubbish] need to clear cache!"), 0);
  expectNothingLeft();
}

}  // namespace
