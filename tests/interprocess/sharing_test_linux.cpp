// Shared images where locks are advisory and files can be removed while they are open.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "worker.h"

namespace {

namespace fs = std::filesystem;

using namespace interprocess;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

// A lock that the test takes as a clean-up would.
class HeldLock {
 public:
  explicit HeldLock(const fs::path& path) {
    fs::create_directories(path.parent_path());
    descriptor_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(descriptor_, LOCK_EX | LOCK_NB), 0) << path;
  }
  ~HeldLock() { close(descriptor_); }
  HeldLock(const HeldLock&) = delete;
  HeldLock& operator=(const HeldLock&) = delete;

 private:
  int descriptor_;
};

// How often a process has the file open; also one that has no name any more.
int timesOpen(std::uint32_t process, const fs::path& path) {
  int count = 0;
  std::error_code gone;
  for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd", gone)) {
    count += fs::read_symlink(entry.path(), gone) == path ? 1 : 0;
  }
  return count;
}

class SharingOnLinuxTest : public testing::Test {
 protected:
  std::string share() const { return "share a " + images_.id("a") + " 8 5000"; }
  std::string attach() const { return "attach a " + images_.id("a"); }

  const Home home_;
  const Program program_{home_};
  const SharedImages images_{home_};
};

// A clean-up may remove the lock file between its opening and its locking by another process. The test stands in for
// the clean-up, and stops in the middle of it.
TEST_F(SharingOnLinuxTest, IsHeldByTheNameOfTheLockFileAndNotByAFileThatIsGone) {
  Worker maker(program_);
  ASSERT_EQ(maker.ask(std::string("make b") + kInMemory), "made");  // its own clean-up is done
  auto cleaner = std::make_unique<HeldLock>(images_.lockFile("a"));
  maker.tell(share());
  ASSERT_TRUE(eventually([&] { return timesOpen(maker.id(), images_.lockFile("a")) == 2; }));
  fs::remove(images_.lockFile("a"));
  cleaner.reset();
  EXPECT_EQ(maker.answer(), "made");
  EXPECT_TRUE(fs::exists(images_.lockFile("a")));
  EXPECT_EQ(timesOpen(maker.id(), images_.lockFile("a")), 2);

  Worker other(program_);
  ASSERT_EQ(other.ask(attach()), "attached");
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  EXPECT_EQ(maker.logged("has Ownership"), 0) << "both hold the same file";
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  EXPECT_THAT(images_.files(), IsEmpty());
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

// The same while another process attaches to what a dead one left: its descriptor goes before the lock.
TEST_F(SharingOnLinuxTest, IsNotAttachedToWhileItIsCleanedUp) {
  Worker other(program_);
  ASSERT_EQ(other.ask(std::string("make b") + kInMemory), "made");
  {
    Worker maker(program_);
    ASSERT_EQ(maker.ask(share()), "made");
    maker.kill();
  }
  auto cleaner = std::make_unique<HeldLock>(images_.lockFile("a"));
  other.tell(attach());
  ASSERT_TRUE(eventually([&] { return timesOpen(other.id(), images_.lockFile("a")) == 2; }));
  fs::remove(images_.descriptor("a"));
  fs::remove(images_.lockFile("a"));
  cleaner.reset();
  EXPECT_EQ(other.answer(), "null");
  EXPECT_EQ(other.logged("the image has been cleaned up meanwhile"), 1);
  EXPECT_THAT(images_.files(), IsEmpty());
  EXPECT_EQ(other.ask(share()), "made");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
}

// A clean-up comes before the first image of a process, and be it one that it attaches to.
TEST_F(SharingOnLinuxTest, IsRemovedByAProcessWhoseFirstImageItWouldBe) {
  {
    Worker maker(program_);
    ASSERT_EQ(maker.ask(share()), "made");
    maker.kill();
  }
  Worker other(program_);
  EXPECT_EQ(other.ask("info " + images_.id("a")), "8 x 5000");
  EXPECT_EQ(other.ask(attach()), "null");
  EXPECT_EQ(other.logged("the image has been cleaned up meanwhile"), 1);
  EXPECT_THAT(images_.files(), IsEmpty());
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

TEST_F(SharingOnLinuxTest, WaitsForAProcessThatIsBusyWithOne) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make b") + kInMemory), "made");
  auto busy = std::make_unique<HeldLock>(home_.dataFolder() / "KvTileImage_Interprocess.filelock");
  worker.tell(share());
  std::this_thread::sleep_for(300ms);
  EXPECT_THAT(images_.files(), IsEmpty());
  busy.reset();
  EXPECT_EQ(worker.answer(), "made");
}

// A process that was stopped in the middle does not stop the others for good. Thirty seconds each way.
TEST_F(SharingOnLinuxTest, WaitsNoLongerThanHalfAMinute) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask(share()), "made");
  Worker other(program_);
  const HeldLock stopped(home_.dataFolder() / "KvTileImage_Interprocess.filelock");
  const auto start = std::chrono::steady_clock::now();
  other.tell(attach());
  worker.tell("unload a");
  EXPECT_EQ(other.answer(), "null");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 30s);
  EXPECT_TRUE(other.loggedError({"shared images cannot be used now: another process has kept ",
                                 "KvTileImage_Interprocess.filelock locked for 30 seconds"}))
      << other.log(3);
  EXPECT_EQ(worker.answer(), "unloaded");
  EXPECT_THAT(images_.files(), IsEmpty()) << "letting go goes on without its turn";
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

TEST_F(SharingOnLinuxTest, DoesNotWaitForAStoppedProcessThatOnlyHoldsTheImage) {
  Worker stopped(program_);
  ASSERT_EQ(stopped.ask(share()), "made");
  ASSERT_EQ(stopped.ask("write a 1"), "written");
  kill(static_cast<pid_t>(stopped.id()), SIGSTOP);
  Worker other(program_);
  EXPECT_EQ(other.ask(attach()), "attached");
  EXPECT_EQ(other.ask("read a 1"), "same");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  kill(static_cast<pid_t>(stopped.id()), SIGCONT);
  EXPECT_EQ(stopped.ask("read a 1"), "same");
}

TEST_F(SharingOnLinuxTest, KeepsItsFilesToTheUser) {
  Worker maker(program_);
  ASSERT_EQ(maker.ask(share()), "made");
  for (const fs::path& file : {images_.descriptor("a"), images_.lockFile("a")}) {
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write) << file;
    EXPECT_EQ(fs::status(file.parent_path()).permissions(), fs::perms::owner_all) << file.parent_path();
  }
}

TEST_F(SharingOnLinuxTest, StaysWithTheParentOfAForkedProcess) {
  Worker maker(program_);
  ASSERT_EQ(maker.ask(share()), "made");
  ASSERT_EQ(maker.ask("write a 1"), "written");
  maker.tell("fork read a 1; unload a");
  EXPECT_EQ(maker.answer(), "same");
  EXPECT_EQ(maker.answer(), "unloaded");
  EXPECT_EQ(maker.answer(), "ended 0");
  EXPECT_EQ(maker.ask("read a 1"), "same");
  Worker other(program_);
  EXPECT_EQ(other.ask(attach()), "attached");
  EXPECT_EQ(other.ask("read a 1"), "same");
  EXPECT_EQ(other.ask("unload a"), "unloaded");
  EXPECT_EQ(maker.ask("read a 1"), "same") << "the parent is a holder still";
  EXPECT_EQ(maker.ask("unload a"), "unloaded");
  EXPECT_THAT(images_.files(), IsEmpty());
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

}  // namespace
