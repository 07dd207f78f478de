// Forked processes and the images that they find.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

class ForkTest : public testing::Test {
 protected:
  // The parent has written one image.
  void SetUp() override {
    ASSERT_EQ(parent_.ask(std::string("make a") + kFourTiles), "made");
    ASSERT_EQ(parent_.ask("write a 1"), "written");
    files_ = program_.backingFiles();
    ASSERT_EQ(files_, backingFileNames(parent_.id(), 0, 4));
  }

  // The backing files that are not the parent's.
  Names othersFiles() const {
    const Names all = program_.backingFiles();
    Names others;
    std::set_difference(all.begin(), all.end(), files_.begin(), files_.end(), std::back_inserter(others));
    return others;
  }

  const Home home_;
  const Program program_{home_};
  Worker parent_{program_};
  Names files_;
};

TEST_F(ForkTest, LeavesTheParentsFilesWhenItUnloadsItsImage) {
  parent_.tell("fork unload a");
  EXPECT_EQ(parent_.answer(), "unloaded");
  EXPECT_EQ(parent_.answer(), "ended 0");
  EXPECT_EQ(program_.backingFiles(), files_);
  EXPECT_EQ(parent_.ask("read a 1"), "same");
  EXPECT_EQ(parent_.ask("write a 2"), "written");
  EXPECT_EQ(parent_.ask("read a 2"), "same");
  EXPECT_EQ(parent_.ask("unload a"), "unloaded");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
  EXPECT_EQ(parent_.end(), 0);
}

TEST_F(ForkTest, LeavesTheParentsFilesWhenItEnds) {
  EXPECT_EQ(parent_.ask("fork"), "ended 0");
  EXPECT_EQ(program_.backingFiles(), files_);
  parent_.tell("fork read a 1");
  EXPECT_EQ(parent_.answer(), "same");
  EXPECT_EQ(parent_.answer(), "ended 0");
  EXPECT_EQ(program_.backingFiles(), files_);
  EXPECT_EQ(parent_.ask("read a 1"), "same");
  EXPECT_EQ(parent_.ask("unload a"), "unloaded");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

TEST_F(ForkTest, MakesImagesOfItsOwn) {
  parent_.tell(
      "fork make b 256 16384 files; write b 2; make c 256 16384 files; write c 3; read b 2; read c 3; read a 1");
  EXPECT_EQ(parent_.answer(), "made");
  EXPECT_EQ(parent_.answer(), "written");
  EXPECT_EQ(parent_.answer(), "made");
  EXPECT_EQ(parent_.answer(), "written");
  EXPECT_EQ(parent_.answer(), "same");
  EXPECT_EQ(parent_.answer(), "same");
  EXPECT_EQ(parent_.answer(), "same");
  EXPECT_EQ(parent_.answer(), "ended 0");
  EXPECT_EQ(othersFiles().size(), 8U) << "it has not unloaded them";
  EXPECT_EQ(parent_.ask("read a 1"), "same");
  EXPECT_EQ(parent_.ask(std::string("make d") + kFourTiles), "made");
  EXPECT_EQ(parent_.ask("write d 4"), "written");
  EXPECT_EQ(parent_.ask("read a 1"), "same");
  EXPECT_EQ(parent_.ask("read d 4"), "same");
  EXPECT_EQ(parent_.ask("unload a"), "unloaded");
  EXPECT_EQ(parent_.ask("unload d"), "unloaded");
  EXPECT_EQ(parent_.end(), 0);

  EXPECT_EQ(othersFiles().size(), 8U);
  Worker next(program_);
  EXPECT_EQ(next.ask(std::string("make e") + kInMemory), "made");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

TEST_F(ForkTest, UnloadsItsOwnImages) {
  parent_.tell("fork make b 256 16384 files; write b 2; unload b; unload a");
  EXPECT_EQ(parent_.answer(), "made");
  EXPECT_EQ(parent_.answer(), "written");
  EXPECT_EQ(parent_.answer(), "unloaded");
  EXPECT_EQ(parent_.answer(), "unloaded");
  EXPECT_EQ(parent_.answer(), "ended 0");
  EXPECT_EQ(program_.backingFiles(), files_);
  EXPECT_EQ(parent_.ask("read a 1"), "same");
}

// The lock of the clean-up is the parent's and the child's together: the end of one leaves it to the other.
TEST_F(ForkTest, LeavesTheLockToTheParent) {
  EXPECT_EQ(parent_.ask("fork"), "ended 0");
  Worker second(program_);
  EXPECT_EQ(second.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(second.logged("[FileMappingDirHelper::clearRubbish] not clear cache!"), 1);
  EXPECT_EQ(program_.backingFiles(), files_);
}

TEST(EarlyForkTest, UsesTheLibraryBeforeTheParentDoes) {
  const Home home;
  const Program program(home);
  Worker parent(program);
  parent.tell("fork make b 256 16384 files; write b 2; read b 2");
  EXPECT_EQ(parent.answer(), "made");
  EXPECT_EQ(parent.answer(), "written");
  EXPECT_EQ(parent.answer(), "same");
  EXPECT_EQ(parent.answer(), "ended 0");
  EXPECT_EQ(program.backingFiles().size(), 4U);
  EXPECT_EQ(parent.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(program.backingFiles(), backingFileNames(parent.id(), 0, 4)) << "the child's are leftovers by now";
  EXPECT_EQ(parent.ask("write a 1"), "written");
  EXPECT_EQ(parent.ask("read a 1"), "same");
  EXPECT_EQ(parent.ask("unload a"), "unloaded");
  EXPECT_EQ(parent.end(), 0);
}

}  // namespace
