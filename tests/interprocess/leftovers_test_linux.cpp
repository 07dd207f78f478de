// Programs and processes as only Linux has them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <string>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::IsEmpty;

// After a new start of the machine the threads of the kernel have the ids that many a program had before.
TEST(KernelThreadTest, IsNoProcessOfTheProgram) {
  std::string name;
  std::getline(std::ifstream("/proc/2/comm"), name);
  if (name != "kthreadd") {
    GTEST_SKIP() << "the threads of the kernel are not seen here";
  }
  const Home home;
  const Program program(home);
  Worker first(program);
  ASSERT_EQ(first.ask(std::string("make a") + kInMemory), "made");
  ASSERT_EQ(first.end(), 0);
  program.leave(backingFileNames(2, 0, 1).front());

  Worker next(program);
  ASSERT_EQ(next.ask(std::string("make a") + kInMemory), "made");
  EXPECT_EQ(next.logged("pid:2 is dead"), 1);
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

TEST(ZombieTest, IsDead) {
  const Home home;
  const Program program(home);
  Worker zombie(program);
  ASSERT_EQ(zombie.ask(std::string("make a") + kFourTiles), "made");
  ASSERT_EQ(kill(static_cast<pid_t>(zombie.id()), SIGKILL), 0);
  ASSERT_EQ(zombie.answer(), "ended");  // no one waits for it: its entry in the table of processes stays

  Worker next(program);
  // The zombie may still be on its way: its output is closed before it lets go of the lock.
  ASSERT_TRUE(eventually([&] {
    std::ifstream status("/proc/" + std::to_string(zombie.id()) + "/stat");
    const std::string text{std::istreambuf_iterator<char>(status), {}};
    return text.find(") Z ") != std::string::npos;
  }));
  ASSERT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(next.logged("[FileMappingDirHelper::clearRubbish] need to clear cache!"), 1);
  EXPECT_THAT(program.backingFiles(), IsEmpty());
}

TEST(ReplacedProgramTest, IsTheProgramThatItWas) {
  const Home home;
  const Program program(home);
  Worker holder(program);
  ASSERT_EQ(holder.ask(std::string("make a") + kInMemory), "made");
  Worker old(program);
  const std::filesystem::path copy = program.path().string() + ".new";
  std::filesystem::copy_file(program.path(), copy);
  std::filesystem::rename(copy, program.path());  // a new version
  ASSERT_EQ(old.ask(std::string("make a") + kFourTiles), "made");
  ASSERT_EQ(old.ask("write a 1"), "written");
  EXPECT_EQ(program.backingFiles(), backingFileNames(old.id(), 0, 4)) << "in the folder of the program";
  holder.kill();

  Worker next(program);
  ASSERT_EQ(next.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(next.logged("[FileMappingDirHelper::clearRubbish] need to clear cache!"), 1);
  EXPECT_EQ(program.cacheFolders().size(), 1U);
  EXPECT_EQ(program.backingFiles(), together(backingFileNames(old.id(), 0, 4), backingFileNames(next.id(), 0, 4)));
  EXPECT_EQ(old.ask("read a 1"), "same");
}

TEST(ProgramNameTest, MayBeAnyText) {
  const Home home;
  const Program program(home, "w\u00f6rker \u6f22\u5b57 '100%s'", "f\u00f6lder \U0001f5c2");
  Worker dead(program);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made") << dead.log();
  ASSERT_EQ(dead.ask("write a 1"), "written");
  ASSERT_EQ(dead.ask("read a 1"), "same");
  EXPECT_EQ(program.backingFiles(), backingFileNames(dead.id(), 0, 4));
  Worker second(program);
  ASSERT_EQ(second.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();
  Worker next(program);
  ASSERT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(program.backingFiles(), backingFileNames(second.id(), 0, 4));
}

TEST(FileNameTest, ThatIsNoTextIsNotOurs) {
  const Home home;
  const Program program(home);
  Worker first(program);
  ASSERT_EQ(first.ask(std::string("make a") + kFourTiles), "made");
  first.kill();
  const std::filesystem::path path = program.leave("process_1_\xff\xfe" + std::string(kBackingFileExtension));
  Worker next(program);
  ASSERT_EQ(next.ask(std::string("make a") + kInMemory), "made");
  EXPECT_EQ(next.logged("is removed!"), 4) << next.log(3);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(ProgramNameTest, ThatIsNoTextFailsImagesInFilesOnly) {
  const Home home;
  const Program program(home, "w\xff\xfe");
  Worker worker(program);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_NE(worker.log(4), "");
  EXPECT_EQ(worker.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(worker.end(), 0);
}

}  // namespace
