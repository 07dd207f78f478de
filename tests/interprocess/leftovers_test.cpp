// The files of processes that end without releasing their images, and who removes them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <tuple>

#include "support/system.h"
#include "worker.h"
#include "worker_system.h"

namespace {

using namespace interprocess;
using testing::Combine;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using testing::Values;

constexpr const char* kCleans = "[FileMappingDirHelper::clearRubbish] need to clear cache!";
constexpr const char* kLeavesAlone = "[FileMappingDirHelper::clearRubbish] not clear cache!";

// An image of 300 small tiles: making it takes a while.
constexpr const char* kManyTiles = " 8 1228800 files";

// ---- A process that is killed

enum class Moment { Creating, Made, StartingToWrite, Writing, Releasing };

struct KilledAt {
  Moment moment;
  const char* name;
};

void PrintTo(const KilledAt& at, std::ostream* out) { *out << at.name; }

struct FirstImage {
  const char* size;
  const char* name;
};

void PrintTo(const FirstImage& image, std::ostream* out) { *out << image.name; }

class KilledTest : public testing::TestWithParam<std::tuple<KilledAt, FirstImage>> {
 protected:
  // Brings a worker to the moment and kills it there.
  void killAt(Moment moment) {
    Worker worker(program_);
    if (moment == Moment::Creating) {
      worker.tell(std::string("make a") + kManyTiles);
      ASSERT_TRUE(eventually([&] { return !program_.backingFiles().empty(); }));
    } else {
      ASSERT_EQ(worker.ask(std::string("make a") + (moment == Moment::Releasing ? kManyTiles : kFourTiles)), "made");
    }
    if (moment == Moment::StartingToWrite || moment == Moment::Writing) {
      ASSERT_EQ(worker.ask("write-on a"), "writing");
    }
    if (moment == Moment::Writing) {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    if (moment == Moment::Releasing) {
      const std::size_t all = program_.backingFiles().size();
      worker.tell("unload a");
      ASSERT_TRUE(eventually([&] { return program_.backingFiles().size() < all; }));
    }
    worker.kill();
    if (moment == Moment::Made || moment == Moment::StartingToWrite || moment == Moment::Writing) {
      EXPECT_EQ(program_.backingFiles(), backingFileNames(worker.id(), 0, 4));
    }
  }

  const Home home_;
  const Program program_{home_};
};

TEST_P(KilledTest, LeavesItsFilesToTheNextProcess) {
  const auto& [at, first] = GetParam();
  ASSERT_NO_FATAL_FAILURE(killAt(at.moment));
  const auto left = static_cast<int>(program_.backingFiles().size());

  Worker next(program_);
  EXPECT_EQ(static_cast<int>(program_.backingFiles().size()), left) << "nothing is removed before the first image";
  EXPECT_EQ(next.ask(std::string("make b") + first.size), "made");
  EXPECT_EQ(next.logged(kCleans), 1);
  EXPECT_EQ(next.logged("is removed!"), left);
  EXPECT_EQ(program_.backingFiles(), backingFileNames(next.id(), 0, first.size == kFourTiles ? 4 : 0));
  EXPECT_EQ(next.ask("write b 7"), "written");
  EXPECT_EQ(next.ask("read b 7"), "same");
  EXPECT_EQ(next.ask("unload b"), "unloaded");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
  EXPECT_EQ(next.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(, KilledTest,
                         Combine(Values(KilledAt{Moment::Creating, "Creating"}, KilledAt{Moment::Made, "Made"},
                                        KilledAt{Moment::StartingToWrite, "StartingToWrite"},
                                        KilledAt{Moment::Writing, "Writing"}, KilledAt{Moment::Releasing, "Releasing"}),
                                 Values(FirstImage{kInMemory, "InMemory"}, FirstImage{kFourTiles, "InFiles"})),
                         [](const auto& parameters) {
                           return std::string(std::get<0>(parameters.param).name) + "_Next" +
                                  std::get<1>(parameters.param).name;
                         });

TEST(LeftoversTest, OutliveACleanUpThatIsKilled) {
  const Home home;
  const Program program(home);
  Worker dead(program);
  ASSERT_EQ(dead.ask(std::string("make a") + kManyTiles), "made");
  dead.kill();
  const std::size_t all = program.backingFiles().size();
  ASSERT_EQ(all, 300U);

  Worker killed(program);
  killed.tell(std::string("make b") + kInMemory);
  ASSERT_TRUE(eventually([&] { return program.backingFiles().size() < all; }));
  killed.kill();
  Worker next(program);
  EXPECT_EQ(next.ask(std::string("make c") + kInMemory), "made");
  EXPECT_EQ(next.logged(kCleans), 1);
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

// ---- A process that ends by itself

TEST(EndedTest, LeavesTheFilesOfImagesThatItDidNotUnload) {
  const Home home;
  const Program program(home);
  Worker ending(program);
  ASSERT_EQ(ending.ask(std::string("make a") + kFourTiles), "made");
  ASSERT_EQ(ending.ask(std::string("make b") + kFourTiles), "made");
  ASSERT_EQ(ending.ask("write a 1"), "written");
  ASSERT_EQ(ending.ask("unload b"), "unloaded");
  EXPECT_EQ(ending.ask("exit 3"), "ended");
  EXPECT_EQ(ending.process().wait(), 3);
  EXPECT_EQ(program.backingFiles(), backingFileNames(ending.id(), 0, 4));

  Worker next(program);
  EXPECT_EQ(next.ask(std::string("make c") + kInMemory), "made");
  EXPECT_EQ(next.logged(kCleans), 1);
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

TEST(EndedTest, LeavesNothingOfImagesThatItUnloaded) {
  const Home home;
  const Program program(home);
  Worker ending(program);
  ASSERT_EQ(ending.ask(std::string("make a") + kFourTiles), "made");
  ASSERT_EQ(ending.ask("write a 1"), "written");
  ASSERT_EQ(ending.ask(std::string("make b") + kFourTiles), "made");
  ASSERT_EQ(ending.ask("write-columns b 2"), "written");
  EXPECT_EQ(program.backingFiles(), backingFileNames(ending.id(), 0, 8));
  EXPECT_EQ(ending.ask("read a 1"), "same");
  EXPECT_EQ(ending.ask("unload a"), "unloaded");
  EXPECT_EQ(program.backingFiles(), backingFileNames(ending.id(), 4, 4));
  EXPECT_EQ(ending.ask("read b 2"), "same");
  EXPECT_EQ(ending.ask("unload b"), "unloaded");
  EXPECT_EQ(ending.end(), 0);
  EXPECT_EQ(ending.log(3), "");
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

// ---- What the names of leftovers say

class NamedTest : public testing::Test {
 protected:
  // Has the cache folder made.
  void SetUp() override {
    Worker first(program_);
    ASSERT_EQ(first.ask(std::string("make a") + kInMemory), "made");
    ASSERT_EQ(first.end(), 0);
  }

  // A process that cleans up.
  void cleanUp() {
    ASSERT_EQ(cleaner_.ask(std::string("make a") + kInMemory), "made");
    ASSERT_EQ(cleaner_.logged(kCleans), 1);
  }

  static std::string nameOf(std::uint32_t processId) {
    return "process_" + std::to_string(processId) + "_5" + kBackingFileExtension;
  }

  const Home home_;
  const Program program_{home_};
  Worker cleaner_{program_};
};

TEST_F(NamedTest, GoIfTheirProcessIsAnotherProgramByNow) {
  const Program other(home_, "another");
  const Worker running(other);
  program_.leave(nameOf(running.id()));
  cleanUp();
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
  EXPECT_EQ(cleaner_.logged("pid:" + std::to_string(running.id()) + " is dead"), 1);
}

TEST_F(NamedTest, StayWhileTheirProcessRuns) {
  const Worker running(program_);  // it has made no image: the lock file is free
  program_.leave(nameOf(running.id()));
  cleanUp();
  EXPECT_THAT(program_.backingFiles(), ElementsAre(nameOf(running.id())));
  EXPECT_EQ(cleaner_.logged("pid:" + std::to_string(running.id()) + " is alive"), 1);
}

TEST_F(NamedTest, StayWhileTheirProcessRunsTheProgramOfThatNameInAnotherFolder) {
  const Program sameName(home_, "worker", "elsewhere");
  const Worker running(sameName);
  program_.leave(nameOf(running.id()));
  cleanUp();
  EXPECT_THAT(program_.backingFiles(), ElementsAre(nameOf(running.id())));
}

TEST_F(NamedTest, StayIfTheirProcessIsTheOneThatCleansUp) {
  program_.leave(nameOf(cleaner_.id()));
  cleanUp();
  EXPECT_THAT(program_.backingFiles(), ElementsAre(nameOf(cleaner_.id())));
}

TEST_F(NamedTest, GoIfTheNameTellsNoProcess) {
  const std::string extension = kBackingFileExtension;
  program_.leave("process_abc_3" + extension);
  program_.leave("lost" + extension);
  program_.leave("process_" + std::to_string(cleaner_.id()) + extension);
  program_.leave("process_99999999999999999999_1" + extension);
  program_.leave("process_-1_1" + extension);
  program_.leave("STRAY.KORVANEFILEMAPPING");
  cleanUp();
  const Names left = namesIn(program_.cacheFolders().at(0));
  EXPECT_THAT(left, IsEmpty());
  EXPECT_EQ(cleaner_.logged("pid:0 is dead"), 1);
  EXPECT_EQ(cleaner_.logged("invalid fileMapping path"), 3);
  EXPECT_EQ(cleaner_.logged("is removed!"), 6);
}

TEST_F(NamedTest, AreBackingFilesOnly) {
  const std::string extension = kBackingFileExtension;
  const std::filesystem::path folder = program_.leave("process_1_1.txt").parent_path();
  program_.leave("process_1_1" + extension + "x");
  program_.leave("process_1_1");
  std::filesystem::create_directories(folder / ("process_1_2" + extension));
  std::ofstream(folder / ("process_1_2" + extension) / ("process_1_3" + extension)) << "below";
  const Names before = namesIn(folder);
  cleanUp();
  EXPECT_EQ(namesIn(folder), before);
  EXPECT_TRUE(std::filesystem::exists(folder / ("process_1_2" + extension) / ("process_1_3" + extension)));
  EXPECT_EQ(cleaner_.logged("is removed!"), 0);
}

TEST_F(NamedTest, StayWhileAnyoneHasThemInUse) {
  const std::filesystem::path path = program_.leave("stray" + std::string(kBackingFileExtension));
  const support::HeldFile held(path);
  cleanUp();
  EXPECT_TRUE(std::filesystem::exists(path));
  EXPECT_EQ(cleaner_.logged("stray.korvaneFileMapping is being used by other process!"), 1);
}

// ---- The lock file

TEST(LockFileTest, EndsTheCleanUpIfItCannotBeMade) {
  const Home home;
  const Program program(home);
  std::ofstream(program.hostCacheRoot()) << "a file where the folder should be";
  Worker worker(program);
  EXPECT_EQ(worker.ask(std::string("make a") + kInMemory), "made");
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::clearRubbish] createDirWithFilePath failed:", ".filelock!"}));
  EXPECT_EQ(worker.logged(kCleans), 0);
  EXPECT_EQ(worker.logged(kLeavesAlone), 0);
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(worker.ask("write b 1"), "written");
  EXPECT_EQ(worker.ask("read b 1"), "same");
  EXPECT_EQ(worker.ask("unload b"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST(LockFileTest, IsNotHandedOnToTheProgramsThatAHostStarts) {
  const Home home;
  const Program program(home);
  const Program tool(home, "tool");
  Worker host(program);
  ASSERT_EQ(host.ask(std::string("make a") + kFourTiles), "made");
  host.tell("start " + tool.path().string());
  ASSERT_THAT((Names{host.answer(), host.answer()}), UnorderedElementsAre("started", "ready")) << "the tool is ready";
  host.kill();

  Worker next(program);
  EXPECT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(next.logged(kCleans), 1);
  EXPECT_THAT(program.backingFiles(), IsEmpty());
  host.process().closeInput();
  while (host.process().readLine()) {  // until the tool has ended, too
  }
}

}  // namespace
