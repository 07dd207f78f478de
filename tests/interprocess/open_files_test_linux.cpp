// A process that can open no more files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

// The lock file is the fourth: nothing more can be opened.
TEST(OpenFilesTest, FailWhatNeedsOneMoreUntilThereIsRoom) {
  const Home home;
  const Program program(home);
  Worker worker(program);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  ASSERT_EQ(worker.ask("write a 1"), "written");
  const Names files = program.backingFiles();
  ASSERT_EQ(worker.ask("limit files 4"), "limited");
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"cannot be made: Too many open files"})) << worker.log(3);
  EXPECT_EQ(worker.ask("read a 1"), "failed");
  EXPECT_EQ(program.backingFiles(), files);
  ASSERT_EQ(worker.ask("limit files 64"), "limited");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_THAT(program.backingFiles(), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

}  // namespace
