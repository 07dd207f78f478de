// Images on disks that are too small, run full, or cannot do what others can.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "small_disk_linux.h"
#include "worker.h"

namespace {

using namespace interprocess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;

constexpr std::uint64_t kMiB = 1 << 20;

// A program whose one root is on a disk of its own.
class DiskTest : public testing::Test {
 protected:
  void useDisk(SmallDisk::Kind kind, std::uint64_t bytes, unsigned files = 0) {
    disk_ = std::make_unique<SmallDisk>(kind, bytes, files);
    if (!disk_->missing().empty()) {
      GTEST_SKIP() << "no disk can be mounted here: " << disk_->missing();
    }
    std::filesystem::create_directories(home_.dataFolder());
    std::ofstream(home_.configurationFile())
        << R"({"meta":{},"desc":{"rootDirList":[")" << root().string() << R"("],"bAlternateUseDisk":true}})";
  }

  std::filesystem::path root() const { return disk_->folder() / "root"; }

  // Makes the cache folder.
  std::filesystem::path cacheFolder(Worker& worker) const {
    EXPECT_EQ(worker.ask(std::string("make first") + kInMemory), "made");
    const auto folders = program_.cacheFolders(root());
    EXPECT_EQ(folders.size(), 1U);
    return folders.empty() ? std::filesystem::path() : folders[0];
  }

  const Home home_;
  const Program program_{home_};
  std::unique_ptr<SmallDisk> disk_;
};

std::int64_t lastChange(const std::filesystem::path& folder) {
  struct stat status {};
  stat(folder.c_str(), &status);
  return status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec;
}

// ---- Disks that reserve room

class FixedSizeTest : public DiskTest, public testing::WithParamInterface<SmallDisk::Kind> {};

TEST_P(FixedSizeTest, RefusesAnImageLargerThanTheDiskBeforeItWritesAnything) {
  useDisk(GetParam(), 32 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  const std::uint64_t freeBytes = disk_->freeBytes();
  const std::int64_t changed = lastChange(folder);
  // 40 tiles of 256 x 4096 pixels.
  EXPECT_EQ(worker.ask("make a 256 163840 files"), "null");
  EXPECT_TRUE(worker.loggedError({"take 41943040 bytes", folder.string() + "/ has " + std::to_string(freeBytes)}))
      << worker.log(3);
  EXPECT_EQ(disk_->freeBytes(), freeBytes);
  EXPECT_EQ(lastChange(folder), changed) << "a file has been there";
  EXPECT_THAT(namesIn(folder), IsEmpty());

  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "made") << "a smaller image";
  EXPECT_EQ(worker.ask("write b 1"), "written");
  EXPECT_EQ(worker.ask("read b 1"), "same");
  EXPECT_EQ(worker.ask("unload b"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST_P(FixedSizeTest, LeavesNothingWhenTheRoomIsTakenWhileItMakesTheFiles) {
  useDisk(GetParam(), 64 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  // 1200 tiles of 8 x 4096 pixels. The worker is stopped when it has made some of them; it may be faster.
  constexpr std::size_t kTiles = 1200;
  std::size_t made = kTiles;
  for (int attempt = 0; attempt < 50 && made == kTiles; ++attempt) {
    worker.tell("make a 8 4915200 files");
    ASSERT_TRUE(eventually([&] { return !namesIn(folder).empty(); }));
    kill(static_cast<pid_t>(worker.id()), SIGSTOP);
    made = namesIn(folder).size();
    if (made == kTiles) {
      kill(static_cast<pid_t>(worker.id()), SIGCONT);
      ASSERT_EQ(worker.answer(), "made");
      ASSERT_EQ(worker.ask("unload a"), "unloaded");
    }
  }
  ASSERT_LT(made, kTiles) << "the worker was always too fast";
  disk_->fill();
  kill(static_cast<pid_t>(worker.id()), SIGCONT);
  EXPECT_EQ(worker.answer(), "null");
  EXPECT_TRUE(worker.loggedError({"postInitialize failed [reason: createFile failed]"}));
  EXPECT_TRUE(worker.loggedError({folder.string(), "of 32768 bytes cannot be made: No space left on device"}))
      << worker.log(3);
  EXPECT_THAT(namesIn(folder), IsEmpty());

  disk_->freeRoom();
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "made");
  EXPECT_EQ(worker.ask("write b 1"), "written");
  EXPECT_EQ(worker.ask("read b 1"), "same");
  EXPECT_EQ(worker.ask("unload b"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST_P(FixedSizeTest, LeavesNothingWhenTheDiskHoldsNoMoreFiles) {
  useDisk(GetParam(), 32 * kMiB, 64);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  // 200 tiles of 8 x 4096 pixels.
  EXPECT_EQ(worker.ask("make a 8 819200 files"), "null");
  EXPECT_TRUE(worker.loggedError({folder.string(), "of 32768 bytes cannot be made: No space left on device"}))
      << worker.log(3);
  EXPECT_THAT(namesIn(folder), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

TEST_P(FixedSizeTest, WritesAnImageOnADiskThatHasRunFullSince) {
  useDisk(GetParam(), 64 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  ASSERT_EQ(worker.ask("make rows 256 65536 files"), "made");
  ASSERT_EQ(worker.ask("make columns 256 65536 files"), "made");
  disk_->fill();
  EXPECT_LT(disk_->freeBytes(), 32768U);
  EXPECT_EQ(worker.ask("write rows 1"), "written");
  EXPECT_EQ(worker.ask("write-columns columns 2"), "written");
  EXPECT_EQ(worker.ask("read rows 1"), "same");
  EXPECT_EQ(worker.ask("read columns 2"), "same");
  EXPECT_EQ(worker.ask("make b 8 40960 files"), "null") << "no room for 10 tiles";
  EXPECT_EQ(worker.ask("unload rows"), "unloaded");
  EXPECT_EQ(worker.ask("unload columns"), "unloaded");
  EXPECT_THAT(namesIn(folder), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(, FixedSizeTest, Values(SmallDisk::Kind::Memory, SmallDisk::Kind::Ext4),
                         [](const auto& parameters) {
                           return std::string(parameters.param == SmallDisk::Kind::Memory ? "Memory" : "Ext4");
                         });

// ---- Disks that cannot

TEST_F(DiskTest, HoldsImagesIfItCannotReserveRoom) {
  useDisk(SmallDisk::Kind::Ext4WithoutReservation, 32 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(namesIn(folder), backingFileNames(worker.id(), 0, 4));
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_THAT(namesIn(folder), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(DiskTest, HoldsImagesIfItDoesNotTellItsSize) {
  useDisk(SmallDisk::Kind::NoSize, 32 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log(3);
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_THAT(namesIn(folder), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(DiskTest, FailsTheCreationIfItBecomesReadOnly) {
  useDisk(SmallDisk::Kind::Memory, 32 * kMiB);
  if (IsSkipped()) {
    return;
  }
  Worker worker(program_);
  const std::filesystem::path folder = cacheFolder(worker);
  ASSERT_TRUE(disk_->makeReadOnly());
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({folder.string(), "cannot be made: Read-only file system"})) << worker.log(3);
  EXPECT_EQ(worker.end(), 0);
}

// The user's folder is on a full disk: there is no room for the configuration file either.
TEST_F(DiskTest, MayBeFullWhenTheFirstProgramComes) {
  disk_ = std::make_unique<SmallDisk>(SmallDisk::Kind::Memory, 8 * kMiB);
  if (!disk_->missing().empty()) {
    GTEST_SKIP() << "no disk can be mounted here: " << disk_->missing();
  }
  std::filesystem::create_directory_symlink(disk_->folder(), home_.userData());
  disk_->fill();
  {
    Worker worker(program_);
    EXPECT_EQ(worker.ask(std::string("make a") + kInMemory), "made");
    EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::getFromConfigW] json write failed"})) << worker.log(3);
    EXPECT_EQ(worker.end(), 0);
    EXPECT_THAT(namesIn(home_.dataFolder()), ElementsAre("KvTileImage_InterprocessRubbishCleaner.filelock", "caches"))
        << "half a file would be worse than none";
  }
  disk_->freeRoom();
  Worker worker(program_);
  EXPECT_EQ(worker.ask(std::string("make a") + kInMemory), "made");
  EXPECT_EQ(worker.log(3), "");
  EXPECT_TRUE(std::filesystem::exists(home_.configurationFile()));
  EXPECT_EQ(worker.end(), 0);
}

// ---- Several disks

class TwoDisksTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const SmallDisk* disk : {&first_, &second_, &memory_}) {
      if (!disk->missing().empty()) {
        GTEST_SKIP() << "no disk can be mounted here: " << disk->missing();
      }
    }
    std::filesystem::create_directories(home_.dataFolder());
  }

  void configure(const std::vector<const SmallDisk*>& disks, bool alternate) const {
    std::string roots;
    for (const SmallDisk* disk : disks) {
      roots += (roots.empty() ? "\"" : ",\"") + disk->folder().string() + "/root\"";
    }
    std::ofstream(home_.configurationFile()) << R"({"desc":{"rootDirList":[)" << roots << R"(],"bAlternateUseDisk":)"
                                             << (alternate ? "true" : "false") << "}}";
  }

  static Names on(const SmallDisk& disk) {
    Names names;
    for (const auto& file : backingFilesBelow(disk.folder())) {
      names.push_back(file.filename().string());
    }
    return together(std::move(names), {});
  }

  static Names inTurn(std::uint32_t processId, unsigned first) {
    return together(backingFileNames(processId, first, 1), backingFileNames(processId, first + 2, 1));
  }

  static void expectUsable(Worker& worker) {
    EXPECT_EQ(worker.ask("write a 1"), "written");
    EXPECT_EQ(worker.ask("read a 1"), "same");
    EXPECT_EQ(worker.ask("unload a"), "unloaded");
    EXPECT_EQ(worker.end(), 0);
  }

  const Home home_;
  const Program program_{home_};
  // The library leaves 1 GiB of each free.
  const SmallDisk first_{SmallDisk::Kind::Ext4, 1536 * kMiB};
  const SmallDisk second_{SmallDisk::Kind::Ext4, 1536 * kMiB};
  const SmallDisk memory_{SmallDisk::Kind::Memory, 1536 * kMiB};
};

TEST_F(TwoDisksTest, TakeTheFilesInTurn) {
  configure({&first_, &second_}, true);
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  EXPECT_EQ(on(first_), inTurn(worker.id(), 0));
  EXPECT_EQ(on(second_), inTurn(worker.id(), 1));
  expectUsable(worker);
  EXPECT_THAT(on(first_), IsEmpty());
  EXPECT_THAT(on(second_), IsEmpty());
}

TEST_F(TwoDisksTest, AreBothCleanedUp) {
  configure({&first_, &second_}, true);
  Worker dead(program_);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();
  Worker next(program_);
  ASSERT_EQ(next.ask(std::string("make a") + kInMemory), "made");
  EXPECT_EQ(next.logged("is removed!"), 4);
  EXPECT_THAT(on(first_), IsEmpty());
  EXPECT_THAT(on(second_), IsEmpty());
}

TEST_F(TwoDisksTest, TakeTheFilesOneAfterTheOther) {
  configure({&first_, &second_}, false);
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  EXPECT_EQ(on(first_), backingFileNames(worker.id(), 0, 4));
  EXPECT_THAT(on(second_), IsEmpty());
  expectUsable(worker);
}

TEST_F(TwoDisksTest, TakeFilesWhileTheyHaveRoomToSpare) {
  configure({&first_, &second_}, true);
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make m") + kInMemory), "made");  // and the folders
  first_.fill();
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  EXPECT_THAT(on(first_), IsEmpty());
  EXPECT_EQ(on(second_), backingFileNames(worker.id(), 0, 4));
  second_.fill();
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::getSuitableRootDirIndex] not find suitable dir"}));
  EXPECT_TRUE(worker.loggedError({"obtain a suitable dir failed"}));
  EXPECT_EQ(on(second_), backingFileNames(worker.id(), 0, 4));
  expectUsable(worker);
}

TEST_F(TwoDisksTest, AreNotMemory) {
  configure({&memory_, &second_}, true);
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  EXPECT_THAT(on(memory_), IsEmpty());
  EXPECT_EQ(on(second_), backingFileNames(worker.id(), 0, 4));
  expectUsable(worker);
}

// ---- Limits of the process

class LimitsTest : public testing::Test {
 protected:
  const Home home_;
  const Program program_{home_};
};

TEST_F(LimitsTest, OfTheSizeOfFilesFailTheCreationAndNothingElse) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  ASSERT_EQ(worker.ask("limit file-size 1048575"), "limited");
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"of 1048576 bytes cannot be made: File too large"})) << worker.log(3);
  EXPECT_EQ(program_.backingFiles(), backingFileNames(worker.id(), 0, 4));
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("make c 8 8192 files"), "made") << "smaller tiles";
  EXPECT_EQ(worker.ask("write c 2"), "written");
  EXPECT_EQ(worker.ask("read c 2"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.ask("unload c"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(LimitsTest, OfTheSizeOfFilesMayBeTheSizeOfATile) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask("limit file-size 1048576"), "limited");
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

// The file that the first image of a user writes does not fit either.
TEST_F(LimitsTest, OfTheSizeOfFilesMayLeaveNoRoomForAnything) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask("limit file-size 0"), "limited");
  EXPECT_EQ(worker.ask(std::string("make a") + kInMemory), "made");
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.end(), 0);
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
}

TEST_F(LimitsTest, OfOpenFilesDoNotLimitTheTiles) {
  Worker worker(program_);
  ASSERT_EQ(worker.ask("limit files 64"), "limited");
  ASSERT_EQ(worker.ask("make a 8 1228800 files"), "made") << "300 tiles";
  EXPECT_EQ(program_.backingFiles().size(), 300U);
  EXPECT_EQ(worker.ask("write a 1"), "written");
  EXPECT_EQ(worker.ask("read a 1"), "same");
  EXPECT_EQ(worker.ask("write-columns a 2"), "written") << "all tiles at once";
  EXPECT_EQ(worker.ask("read a 2"), "same");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.log(3), "");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
  EXPECT_EQ(worker.end(), 0);
}

// ---- Files that someone removes

TEST(RemovedFilesTest, FailTheAccessAndNothingElse) {
  const Home home;
  const Program program(home);
  Worker worker(program);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  ASSERT_EQ(worker.ask("write a 1"), "written");
  std::filesystem::remove_all(home.dataFolder());
  EXPECT_EQ(worker.ask("read a 1"), "failed");
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null");
  EXPECT_EQ(worker.ask(std::string("make c") + kInMemory), "made");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST(RemovedFilesTest, MayBeReplacedByOthers) {
  const Home home;
  const Program program(home);
  Worker worker(program);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log();
  ASSERT_EQ(worker.ask("write a 1"), "written");
  const std::filesystem::path second = program.cacheFolders().at(0) / backingFileNames(worker.id(), 1, 1).front();
  std::filesystem::resize_file(second, 100);
  EXPECT_EQ(worker.ask("read a 1"), "failed") << "it is too short by now";
  std::filesystem::remove(second);
  std::filesystem::create_directory(second);
  EXPECT_EQ(worker.ask("read a 1"), "failed");
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
  EXPECT_EQ(program.backingFiles(), backingFileNames(worker.id(), 1, 1)) << "the folder is not ours";
}

}  // namespace
