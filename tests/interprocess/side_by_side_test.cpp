// Processes and threads that use the library at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

constexpr const char* kCleans = "[FileMappingDirHelper::clearRubbish] need to clear cache!";
constexpr const char* kLeavesAlone = "[FileMappingDirHelper::clearRubbish] not clear cache!";

// ---- One program

TEST(OneProgramTest, CleansNothingWhileAnotherProcessOfItRuns) {
  const Home home;
  const Program program(home);
  Worker first(program);
  ASSERT_EQ(first.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(first.logged(kCleans), 1);
  ASSERT_EQ(first.ask("write a 1"), "written");
  program.leave(backingFileNames(1, 0, 1).front());
  const Names before = program.backingFiles();

  Worker second(program);
  ASSERT_EQ(second.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(second.logged(kLeavesAlone), 1);
  EXPECT_EQ(second.logged(kCleans), 0);
  EXPECT_EQ(second.ask("write b 2"), "written");
  EXPECT_EQ(program.backingFiles(), together(before, backingFileNames(second.id(), 0, 4)));
  EXPECT_EQ(first.ask("read a 1"), "same");
  EXPECT_EQ(second.ask("read b 2"), "same");
  EXPECT_EQ(first.ask("unload a"), "unloaded");
  EXPECT_EQ(second.ask("read b 2"), "same");
  EXPECT_EQ(second.ask("unload b"), "unloaded");
  EXPECT_EQ(first.end(), 0);
  EXPECT_EQ(second.end(), 0);
}

TEST(OneProgramTest, LeavesTheFilesOfAProcessThatStartedBeforeTheCleanUp) {
  const Home home;
  const Program program(home);
  Worker first(program);
  ASSERT_EQ(first.ask(std::string("make a") + kFourTiles), "made");
  Worker second(program);
  ASSERT_EQ(second.ask(std::string("make b") + kFourTiles), "made");
  ASSERT_EQ(second.ask("write b 2"), "written");
  first.kill();

  Worker third(program);
  ASSERT_EQ(third.ask(std::string("make c") + kFourTiles), "made");
  EXPECT_EQ(third.logged(kCleans), 1);
  EXPECT_EQ(third.logged("pid:" + std::to_string(first.id()) + " is dead"), 4);
  EXPECT_EQ(third.logged("pid:" + std::to_string(second.id()) + " is alive"), 4);
  EXPECT_EQ(program.backingFiles(), together(backingFileNames(second.id(), 0, 4), backingFileNames(third.id(), 0, 4)));
  EXPECT_EQ(second.ask("read b 2"), "same");
  EXPECT_EQ(second.ask("write b 3"), "written");
  EXPECT_EQ(second.ask("read b 3"), "same");
  EXPECT_EQ(second.ask("unload b"), "unloaded");
  EXPECT_EQ(program.backingFiles(), backingFileNames(third.id(), 0, 4));
}

TEST(OneProgramTest, CleansUpOnceInAProcess) {
  const Home home;
  const Program program(home);
  Worker worker(program);
  ASSERT_EQ(worker.ask(std::string("make a") + kInMemory), "made");
  const Names left{program.leave("stray" + std::string(kBackingFileExtension)).filename().string()};
  ASSERT_EQ(worker.ask(std::string("make b") + kFourTiles), "made");
  ASSERT_EQ(worker.ask("unload b"), "unloaded");
  EXPECT_EQ(program.backingFiles(), left);
  EXPECT_EQ(worker.logged("[FileMappingDirHelper::clearRubbish] clear rubbish"), 1);
}

TEST(OneProgramTest, IsCleanedUpByOneOfTheProcessesThatStartTogether) {
#ifdef _WIN32
  constexpr std::size_t kProcesses = 12;  // each takes a moment to start under Wine
#else
  constexpr std::size_t kProcesses = 32;
#endif
  const Home home;
  const Program program(home);
  {
    Worker dead(program);
    ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
    dead.kill();
  }
  std::vector<std::unique_ptr<Worker>> workers;
  while (workers.size() < kProcesses) {
    workers.push_back(std::make_unique<Worker>(program));
  }
  for (const auto& worker : workers) {
    worker->tell("make a 8 8192 files");
  }
  int cleaning = 0;
  int leaving = 0;
  Names expected;
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->answer(), "made");
    cleaning += worker->logged(kCleans);
    leaving += worker->logged(kLeavesAlone);
    expected = together(std::move(expected), backingFileNames(worker->id(), 0, 2));
  }
  EXPECT_EQ(cleaning, 1);
  EXPECT_EQ(leaving, static_cast<int>(kProcesses) - 1);
  EXPECT_EQ(program.backingFiles(), expected);
  for (const auto& worker : workers) {
    worker->tell("write a " + std::to_string(worker->id()));
  }
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->answer(), "written");
    EXPECT_EQ(worker->ask("read a " + std::to_string(worker->id())), "same");
    EXPECT_EQ(worker->ask("unload a"), "unloaded");
    EXPECT_EQ(worker->end(), 0);
  }
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

TEST(OneProgramTest, IsCleanedUpByOneOfTheThreadsThatStartTogether) {
  const Home home;
  const Program program(home);
  Worker dead(program);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();

  Worker worker(program);
  EXPECT_EQ(worker.ask("threads 32"), "32");
  EXPECT_EQ(worker.logged("[FileMappingDirHelper::clearRubbish] clear rubbish"), 1);
  EXPECT_EQ(worker.logged(kCleans), 1);
  EXPECT_EQ(worker.logged("is removed!"), 4);
  EXPECT_EQ(worker.log(3), "");
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

// ---- Several programs

TEST(SeveralProgramsTest, LeaveEachOthersFilesAlone) {
  const Home home;
  const Program program(home);
  Worker dead(program);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();

  const Program another(home, "another");
  Worker worker(another);
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(worker.logged(kCleans), 1);
  EXPECT_EQ(program.backingFiles(), backingFileNames(dead.id(), 0, 4));
  EXPECT_EQ(another.backingFiles(), backingFileNames(worker.id(), 0, 4));
}

TEST(SeveralProgramsTest, AreToldApartByTheirFolders) {
  const Home home;
  const Program here(home, "worker", "here");
  Worker dead(here);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();
  const std::vector<std::filesystem::path> folderOfHere = here.cacheFolders();
  ASSERT_EQ(folderOfHere.size(), 1U);

  const Program there(home, "worker", "there");
  ASSERT_EQ(here.path().filename(), there.path().filename());
  Worker worker(there);
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(worker.logged(kCleans), 1);
  EXPECT_EQ(there.cacheFolders().size(), 2U);
  EXPECT_EQ(namesIn(folderOfHere[0]), backingFileNames(dead.id(), 0, 4));
}

}  // namespace
