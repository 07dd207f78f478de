// A program on another drive than the user's data has a cache folder on each.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "worker.h"
#include "worker_system.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

class TwoDrivesTest : public testing::Test {
 protected:
  // Beside the test program.
  const Home home_;
  const std::filesystem::path folder_ = testFolder() / home_.folder().filename();

  void SetUp() override {
    if (folder_.root_name() == home_.userData().root_name()) {
      GTEST_SKIP() << "the test program is on the drive of the user's data, " << folder_.root_name();
    }
    for (const std::filesystem::path& folder : {testFolder(), home_.userData()}) {
      // 1 GiB stays free.
      if (std::filesystem::space(folder).available < (std::uintmax_t{1} << 30) + (std::uintmax_t{16} << 20)) {
        GTEST_SKIP() << "there is no room on the drive of " << folder;
      }
    }
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  static Names on(const Program& program, const std::filesystem::path& root) {
    const auto folders = program.cacheFolders(root);
    EXPECT_EQ(folders.size(), 1U) << root;
    return folders.empty() ? Names() : namesIn(folders[0]);
  }

  static Names inTurn(std::uint32_t processId, unsigned first) {
    return together(backingFileNames(processId, first, 1), backingFileNames(processId, first + 2, 1));
  }
};

TEST_F(TwoDrivesTest, TakeTheFilesInTurnAndAreBothCleanedUp) {
  const Program program(home_, "worker", folder_.string());
  const std::filesystem::path first = home_.dataFolder() / "caches";
  const std::filesystem::path second = program.hostCacheRoot();
  Worker dead(program);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made") << dead.log();
  EXPECT_EQ(on(program, first), inTurn(dead.id(), 0));
  EXPECT_EQ(on(program, second), inTurn(dead.id(), 1));
  EXPECT_EQ(dead.ask("write a 1"), "written");
  EXPECT_EQ(dead.ask("read a 1"), "same");
  dead.kill();

  Worker next(program);
  ASSERT_EQ(next.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(next.logged("is removed!"), 4);
  EXPECT_EQ(on(program, first), inTurn(next.id(), 0));
  EXPECT_EQ(on(program, second), inTurn(next.id(), 1));
  EXPECT_EQ(next.ask("unload b"), "unloaded");
  EXPECT_THAT(on(program, first), IsEmpty());
  EXPECT_THAT(on(program, second), IsEmpty());
  EXPECT_EQ(next.end(), 0);
}

}  // namespace
