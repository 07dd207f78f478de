// What only Linux has.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/system_info.h"
#include "platform/volumes.h"
#include "platform/win_interprocess.h"
#include "support/refusal.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

using std::filesystem::path;
using support::contentsOf;
using support::refusalOf;
using support::ScratchFolder;
using support::writeFile;
using win_interprocess::file_mapping;
using win_interprocess::kReadOnly;
using win_interprocess::kReadWrite;
using win_interprocess::mapped_region;

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
constexpr uid_t kNobody = 65534;

TEST(SystemInfoTest, MapsFilesInPages) { EXPECT_EQ(platform::allocationGranularity(), 4096U); }

// What `work` answers in a process of its own, which it may change as it likes; -1 if it is ended by a signal.
int inChildProcess(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// For a child process: from here on it is a user who owns nothing. False if it was not the superuser.
bool becomeUser(uid_t user) { return setgroups(0, nullptr) == 0 && setgid(user) == 0 && setuid(user) == 0; }

bool isSuperuser() { return geteuid() == 0; }

struct stat statusOf(const path& file) {
  struct stat status {};
  EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
  return status;
}

mode_t rightsOf(const path& file) { return statusOf(file).st_mode & 07777; }

// ---- Mapped files

class LinuxMappedFilesTest : public testing::Test {
 protected:
  std::string file(const std::string& contents, const char* name = "file") const {
    writeFile(scratch_.path() / name, contents);
    return scratch_.path() / name;
  }

  void expectRefused(const std::string& name) const {
    for (const std::uint32_t mode : {kReadOnly, kReadWrite, win_interprocess::kCopyOnWrite}) {
      const auto refusal = refusalOf([&] { file_mapping(name, mode); });
      ASSERT_TRUE(refusal) << name << ", mode " << mode;
      EXPECT_EQ(refusal->message, "fileMappingHandle is invalid");
      EXPECT_NE(refusal->code, 0U);
    }
  }

  static void expectNoView(const file_mapping& mapping, std::uint64_t offset, std::uint64_t size) {
    const auto refusal = refusalOf([&] { mapped_region(mapping, kReadOnly, offset, size); });
    ASSERT_TRUE(refusal) << size << " bytes at " << offset;
    EXPECT_EQ(refusal->message, "map_view_of_file_ex failed");
    EXPECT_NE(refusal->code, 0U);
  }

  ScratchFolder scratch_;
};

std::ptrdiff_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

TEST_F(LinuxMappedFilesTest, KeepNoDescriptorOpen) {
  const std::ptrdiff_t before = openDescriptors();
  std::vector<std::unique_ptr<file_mapping>> mappings;
  std::vector<std::unique_ptr<mapped_region>> regions;
  for (int i = 0; i < 200; ++i) {
    mappings.push_back(std::make_unique<file_mapping>(file("text", std::to_string(i).c_str()), kReadWrite));
    regions.push_back(std::make_unique<mapped_region>(*mappings.back(), kReadWrite, 1, 2));
    regions.back()->flush();
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxMappedFilesTest, KeepNoDescriptorOpenWhenTheyFail) {
  const std::string name = file("text");
  const std::string empty = file("", "empty");
  const file_mapping mapping(name, kReadOnly);
  const std::ptrdiff_t before = openDescriptors();
  expectRefused(empty);
  expectRefused(scratch_.path());
  expectNoView(mapping, 0, 5);
  EXPECT_TRUE(refusalOf([&] { mapped_region(mapping, kReadWrite, 0, 0); }));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxMappedFilesTest, AreUnmappedWithoutARest) {
  const std::string name = file(std::string(20000, 'x'));
  const auto views = [&] {
    std::ifstream maps("/proc/self/maps");
    std::string line;
    int count = 0;
    while (std::getline(maps, line)) {
      count += line.ends_with(name) ? 1 : 0;
    }
    return count;
  };
  const file_mapping mapping(name, kReadOnly);
  EXPECT_EQ(views(), 0);
  {
    const mapped_region region(mapping, kReadOnly, 8191, 4098);  // touches four pages
    EXPECT_EQ(views(), 1);
  }
  EXPECT_EQ(views(), 0);
}

TEST_F(LinuxMappedFilesTest, ReachNotOneByteBehindTheEnd) {
  const file_mapping mapping(file(std::string(5000, 'x')), kReadOnly);
  expectNoView(mapping, 0, 5001);
  expectNoView(mapping, 4096, 905);
  expectNoView(mapping, 4097, 904);
  expectNoView(mapping, 4999, 2);
  expectNoView(mapping, 5000, 1);
  expectNoView(mapping, 8192, 1);
  EXPECT_FALSE(refusalOf([&] { mapped_region(mapping, kReadOnly, 4999, 1); }));
}

TEST_F(LinuxMappedFilesTest, AreNotTakenFromAnotherFileUnderTheSameName) {
  const std::string name = file("mine");
  const file_mapping mapping(name, kReadWrite);
  const mapped_region before(mapping, kReadWrite, 0, 0);
  std::filesystem::rename(file("else", "other"), name);
  expectNoView(mapping, 0, 0);
  expectNoView(mapping, 0, 4);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(before.address()), 4), "mine");
  std::fill_n(before.address(), 4, std::uint8_t{'x'});
  before.flush();
  EXPECT_EQ(contentsOf(name), "else");
}

TEST_F(LinuxMappedFilesTest, LiveOnWhenTheirFileIsRemoved) {
  const std::string name = file("mine");
  const file_mapping mapping(name, kReadWrite);
  const mapped_region region(mapping, kReadWrite, 0, 0);
  std::filesystem::remove(name);
  region.flush();
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(region.address()), 4), "mine");
  expectNoView(mapping, 0, 0);
}

TEST_F(LinuxMappedFilesTest, AreRefusedWhereTheFileWasTruncated) {
  const std::string name = file(std::string(10000, 'x'));
  const file_mapping mapping(name, kReadOnly);
  std::filesystem::resize_file(name, 4096);
  expectNoView(mapping, 0, 0);  // the whole of the file that was mapped
  expectNoView(mapping, 0, 4097);
  expectNoView(mapping, 4096, 1);
  expectNoView(mapping, 0, 4096);  // what is left is not the file that was mapped either
}

TEST_F(LinuxMappedFilesTest, AreMadeOfRegularFilesOnly) {
  const path pipe = scratch_.path() / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  expectRefused(pipe);  // opened as it is, it would wait for a writer
  expectRefused("/dev/zero");
  const path link = scratch_.path() / "link";
  std::filesystem::create_symlink(file("text"), link);
  expectRefused(link);
}

// ---- Files

TEST(LinuxFilesTest, CreatesZeroFilesWithTheirRoomTaken) {
  const ScratchFolder scratch;
  const path file = scratch.path() / "zeros";
  constexpr std::uint64_t kBytes = 3 * 1024 * 1024 + 1;
  ASSERT_FALSE(platform::createZeroFile(file, kBytes));
  const struct stat status = statusOf(file);
  EXPECT_EQ(static_cast<std::uint64_t>(status.st_size), kBytes);
  EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, kBytes);
  EXPECT_EQ(contentsOf(file), std::string(kBytes, '\0'));
}

TEST(LinuxFilesTest, AreTheirUsersAlone) {
  const ScratchFolder scratch;
  const mode_t before = umask(0);
  const bool zeros = !platform::createZeroFile(scratch.path() / "zeros", 10);
  const bool folders = !platform::createFolders(scratch.wide() + L"a/b/");
  const bool lock = platform::openLockFile(scratch.wide() + L"lock") != nullptr;
  const bool text = platform::writeText(scratch.wide() + L"text", "text");
  umask(before);
  ASSERT_TRUE(zeros && folders && lock && text);
  EXPECT_EQ(rightsOf(scratch.path() / "zeros"), 0600U);
  EXPECT_EQ(rightsOf(scratch.path() / "a"), 0700U);
  EXPECT_EQ(rightsOf(scratch.path() / "a/b"), 0700U);
  EXPECT_EQ(rightsOf(scratch.path() / "lock"), 0600U);
  EXPECT_EQ(rightsOf(scratch.path() / "text"), 0600U);
}

TEST(LinuxFilesTest, FailWithAnErrorAtTheLimitOfFileSizes) {
  const ScratchFolder scratch;
  const path file = scratch.path() / "zeros";
  const auto create = [&](std::uint64_t bytes) {
    return inChildProcess([&] {
      const struct rlimit limit { 10000, 10000 };
      return setrlimit(RLIMIT_FSIZE, &limit) != 0 ? 100 : (platform::createZeroFile(file, bytes) ? 1 : 0);
    });
  };
  EXPECT_EQ(create(10001), 1);  // refused, and no signal came
  EXPECT_FALSE(std::filesystem::exists(file));
  EXPECT_EQ(create(10000), 0);
  EXPECT_EQ(std::filesystem::file_size(file), 10000U);
}

TEST(LinuxFilesTest, LeaveNothingBehindIfTheyDoNotFit) {
  const ScratchFolder scratch;
  const path file = scratch.path() / "zeros";
  for (const std::uint64_t bytes : {std::uint64_t{1} << 60, std::uint64_t{1} << 63, kMost}) {
    EXPECT_TRUE(platform::createZeroFile(file, bytes)) << bytes;
    EXPECT_FALSE(std::filesystem::exists(file)) << bytes;
  }
}

TEST(LinuxFilesTest, DoNotFollowALinkOfAnother) {
  const ScratchFolder scratch;
  const path target = scratch.path() / "target";
  writeFile(target, "kept");
  std::filesystem::create_symlink(target, scratch.path() / "link");
  EXPECT_TRUE(platform::createZeroFile(scratch.path() / "link", 10));
  EXPECT_EQ(platform::openLockFile(scratch.wide() + L"link"), nullptr);
  EXPECT_FALSE(platform::writeText(scratch.wide() + L"link", "new"));
  EXPECT_FALSE(platform::removeUnlessInUse(scratch.wide() + L"link"));
  EXPECT_EQ(contentsOf(target), "kept");
}

TEST(LinuxFilesTest, DoNotWaitForTheOtherEndOfAPipe) {
  const ScratchFolder scratch;
  ASSERT_EQ(mkfifo((scratch.path() / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(platform::openTextForReading(scratch.wide() + L"pipe"), nullptr);
  EXPECT_FALSE(platform::writeText(scratch.wide() + L"pipe", "new"));
  EXPECT_EQ(platform::openLockFile(scratch.wide() + L"pipe"), nullptr);
  EXPECT_FALSE(platform::removeUnlessInUse(scratch.wide() + L"pipe"));
}

TEST(LinuxFilesTest, AreNotEmptiedUnderSomeoneWhoHoldsThem) {
  const ScratchFolder scratch;
  writeFile(scratch.path() / "file", "kept");
  const support::HeldFile held(scratch.path() / "file");
  EXPECT_EQ(platform::openTextForReading(scratch.wide() + L"file"), nullptr);
  EXPECT_FALSE(platform::writeText(scratch.wide() + L"file", "new"));
  EXPECT_EQ(platform::openLockFile(scratch.wide() + L"file"), nullptr);
  EXPECT_FALSE(platform::removeUnlessInUse(scratch.wide() + L"file"));
  EXPECT_EQ(contentsOf(scratch.path() / "file"), "kept");
}

TEST(LinuxFilesTest, AreLockedUnderTheirNameWhoeverRemovesIt) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"lock";
  const platform::Stream first = platform::openLockFile(name);
  ASSERT_NE(first, nullptr);
  std::filesystem::remove(scratch.path() / "lock");
  const platform::Stream second = platform::openLockFile(name);
  EXPECT_NE(second, nullptr);
  EXPECT_EQ(platform::openLockFile(name), nullptr);
}

// Between the opening of a lock file and its locking, whoever holds it may remove it. The new holder must then hold the
// file that has the name, not the one that lost it.
TEST(LinuxFilesTest, LockWhatHasTheNameWhileOthersRemoveIt) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"lock";
  std::atomic<bool> done = false;
  std::atomic<int> holders = 0;
  std::thread remover([&] {
    while (!done) {
      platform::removeUnlessInUse(name);
    }
  });
  std::atomic<int> violations = 0;
  const auto lock = [&] {
    for (int round = 0; round < 2000; ++round) {
      if (const platform::Stream stream = platform::openLockFile(name)) {
        violations += ++holders == 1 ? 0 : 1;
        struct stat held {};
        struct stat named {};
        fstat(fileno(stream.get()), &held);
        violations += stat((scratch.path() / "lock").c_str(), &named) == 0 && held.st_ino == named.st_ino ? 0 : 1;
        --holders;
      }
    }
  };
  std::thread other(lock);
  lock();
  other.join();
  done = true;
  remover.join();
  EXPECT_EQ(violations, 0);
}

// Whoever is killed in between leaves the file, by which the next one finds the companions.
TEST(LinuxFilesTest, GoAfterTheirCompanionsWhileNobodyElseGetsHoldOfThem) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"file";
  writeFile(scratch.path() / "file", "");
  int asked = 0;
  EXPECT_TRUE(platform::removeUnlessInUse(name, [&] {
    ++asked;
    EXPECT_TRUE(std::filesystem::exists(scratch.path() / "file"));
    EXPECT_EQ(platform::openLockFile(name), nullptr);
  }));
  EXPECT_EQ(asked, 1);
  EXPECT_FALSE(std::filesystem::exists(scratch.path() / "file"));
}

TEST(LinuxFilesTest, AreHeldUntilTheStreamIsClosedAndNoLonger) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"lock";
  for (int round = 0; round < 3; ++round) {
    const platform::Stream stream = platform::openLockFile(name);
    ASSERT_NE(stream, nullptr) << round;
    // A program that is started meanwhile must not hold it on.
    EXPECT_NE(fcntl(fileno(stream.get()), F_GETFD) & FD_CLOEXEC, 0);
  }
}

TEST(LinuxFilesTest, FoldersMayBeLinks) {
  const ScratchFolder scratch;
  std::filesystem::create_directory(scratch.path() / "real");
  std::filesystem::create_directory_symlink(scratch.path() / "real", scratch.path() / "link");
  EXPECT_FALSE(platform::createFolders(scratch.wide() + L"link/a/"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() / "real/a"));
  std::filesystem::create_symlink("nowhere", scratch.path() / "dangling");
  EXPECT_TRUE(platform::createFolders(scratch.wide() + L"dangling/"));
}

// ---- Paths

// Sets environment variables, or removes them, and puts them back.
class Environment {
 public:
  Environment(const char* name, const char* value) : name_(name) {
    if (const char* before = std::getenv(name)) {
      before_ = before;
    }
    set(value);
  }
  ~Environment() { set(before_ ? before_->c_str() : nullptr); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

 private:
  void set(const char* value) {
    if (value == nullptr) {
      unsetenv(name_);
    } else {
      setenv(name_, value, 1);
    }
  }

  const char* name_;
  std::optional<std::string> before_;
};

std::wstring dataFolderWith(const char* xdgDataHome, const char* home) {
  const Environment data("XDG_DATA_HOME", xdgDataHome);
  const Environment user("HOME", home);
  return platform::localDataFolder();
}

TEST(LinuxPathsTest, FollowTheUsersChoiceOfADataFolder) {
  EXPECT_EQ(dataFolderWith("/data/ann", "/home/ann"), L"/data/ann/");
  EXPECT_EQ(dataFolderWith("/data/ann/", "/home/ann"), L"/data/ann/");
  EXPECT_EQ(dataFolderWith("/data/\xC3\xA4\xE5\x9B\xBE", "/home/ann"), L"/data/\u00E4\u56FE/");
}

TEST(LinuxPathsTest, IgnoreARelativeDataFolder) {
  EXPECT_EQ(dataFolderWith("data", "/home/ann"), L"/home/ann/.local/share/");
  EXPECT_EQ(dataFolderWith("./data", "/home/ann"), L"/home/ann/.local/share/");
  EXPECT_EQ(dataFolderWith("", "/home/ann"), L"/home/ann/.local/share/");
  EXPECT_EQ(dataFolderWith(nullptr, "/home/ann/"), L"/home/ann/.local/share/");
}

TEST(LinuxPathsTest, AskTheUserListWhereTheEnvironmentNamesNoHome) {
  const struct passwd* const user = getpwuid(getuid());
  if (user == nullptr) {
    GTEST_SKIP() << "this user is in no list";
  }
  const std::wstring expected = path(user->pw_dir).wstring() + L"/.local/share/";
  EXPECT_EQ(dataFolderWith(nullptr, nullptr), expected);
  EXPECT_EQ(dataFolderWith("", ""), expected);
  EXPECT_EQ(dataFolderWith(nullptr, "relative"), expected);
}

TEST(LinuxPathsTest, FallBackToAFolderForAnyoneWithoutAHome) {
  constexpr uid_t kUnknownUser = 54321;
  if (!isSuperuser() || getpwuid(kUnknownUser) != nullptr) {
    GTEST_SKIP() << "takes the superuser, and a user who is in no list";
  }
  EXPECT_EQ(inChildProcess(
                [] { return becomeUser(kUnknownUser) && dataFolderWith(nullptr, nullptr) == L"/var/tmp/" ? 0 : 1; }),
            0);
}

TEST(LinuxPathsTest, KeepHostFilesOutOfSystemFolders) {
  for (const wchar_t* folder :
       {L"/usr/bin/", L"/usr/local/bin/", L"/usr/", L"/bin/", L"/sbin/", L"/lib/", L"/opt/app/bin/"}) {
    EXPECT_FALSE(platform::mayHoldHostFiles(folder)) << folder;
  }
  const ScratchFolder scratch;
  EXPECT_TRUE(platform::mayHoldHostFiles(scratch.wide()));
  EXPECT_FALSE(platform::mayHoldHostFiles(scratch.wide() + L"missing/"));
}

TEST(LinuxPathsTest, KeepHostFilesOutOfFoldersThatTheUserMayNotWrite) {
  const ScratchFolder scratch;
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  EXPECT_EQ(inChildProcess([&] {
              if (isSuperuser() && !becomeUser(kNobody)) {
                return 2;
              }
              return platform::mayHoldHostFiles(scratch.wide()) ? 1 : 0;
            }),
            0);
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0700));
}

TEST(LinuxPathsTest, KnowTheRunningProgram) {
  EXPECT_EQ(path(platform::executablePath()), std::filesystem::canonical("/proc/self/exe"));
}

TEST(LinuxPathsTest, AreUtf8) {
  EXPECT_EQ(platform::narrowPath(L"/a/\u00E4\u56FE\U0001F600"), "/a/\xC3\xA4\xE5\x9B\xBE\xF0\x9F\x98\x80");
}

// ---- Volumes

TEST(LinuxVolumesTest, TellFileSystemsApart) {
  const ScratchFolder here;
  const ScratchFolder elsewhere(support::folderOnAnotherDisk());
  if (statusOf(here.path()).st_dev == statusOf(elsewhere.path()).st_dev) {
    GTEST_SKIP() << "temporary files are in memory";
  }
  EXPECT_NE(platform::driveKey(here.wide()), platform::driveKey(elsewhere.wide()));
  const std::wstring key = std::to_wstring(statusOf(here.path()).st_dev);
  EXPECT_EQ(platform::driveKey(here.wide()), key);
  EXPECT_EQ(platform::driveKey(here.wide() + L"not/made/yet/"), key);
  EXPECT_EQ(platform::driveKey(here.wide() + L"not/made/yet"), key);
}

TEST(LinuxVolumesTest, TakeARelativeFolderFromTheWorkingFolder) {
  const std::wstring key = std::to_wstring(statusOf(".").st_dev);
  EXPECT_EQ(platform::driveKey(L"no-such-folder/below"), key);
  EXPECT_EQ(platform::driveKey(L"no-such-folder"), key);
  EXPECT_EQ(platform::driveKey(L""), key);
}

TEST(LinuxVolumesTest, HaveNoRoomInMemory) {
  EXPECT_EQ(platform::fixedDriveFreeBytes(L"/dev/shm/"), 0U);
  EXPECT_EQ(platform::fixedDriveFreeBytes(L"/dev/shm/not/made/yet/"), 0U);
  EXPECT_GT(platform::freeBytes(L"/dev/shm/").value_or(0), 0U);
}

TEST(LinuxVolumesTest, CountTheRoomOnADiskOfThisMachine) {
  const ScratchFolder scratch;
  const std::uint64_t expected = std::filesystem::space(scratch.path()).available;
  constexpr std::uint64_t kOthersMayTake = std::uint64_t{8} << 30;
  EXPECT_NEAR(static_cast<double>(platform::freeBytes(scratch.wide()).value_or(0)), static_cast<double>(expected),
              static_cast<double>(kOthersMayTake));
  EXPECT_NEAR(static_cast<double>(platform::fixedDriveFreeBytes(scratch.wide() + L"not/made/yet/")),
              static_cast<double>(expected), static_cast<double>(kOthersMayTake));
  EXPECT_GT(platform::fixedDriveFreeBytes(scratch.wide()), 0U);
}

// ---- Processes

// A running copy of a program that sleeps, under a name of the test's choice; ends with the object.
class Sleeper {
 public:
  explicit Sleeper(const std::string& name) {
    std::filesystem::copy_file("/bin/sleep", folder_.path() / name);
    const path program = folder_.path() / name;
    std::array<int, 2> started{};  // closed in the child when the program runs
    EXPECT_EQ(pipe2(started.data(), O_CLOEXEC), 0);
    id_ = fork();
    if (id_ == 0) {
      execl(program.c_str(), program.c_str(), "600", nullptr);
      _exit(127);
    }
    close(started[1]);
    char nothing = 0;
    EXPECT_EQ(read(started[0], &nothing, 1), 0);
    close(started[0]);
  }
  ~Sleeper() {
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  std::int32_t id() const { return id_; }
  const path& folder() const { return folder_.path(); }

 private:
  ScratchFolder folder_;
  pid_t id_ = -1;
};

bool runs(std::int32_t id, const std::wstring& executable) {
  return platform::runningProcesses({id}, executable).contains(id);
}

TEST(LinuxProcessesTest, AreKnownByTheFileNameOfTheirProgram) {
  const Sleeper sleeper("Tile.Viewer");
  EXPECT_TRUE(runs(sleeper.id(), L"Tile.Viewer"));
  EXPECT_TRUE(runs(sleeper.id(), L"tILE.vIEWER"));
  EXPECT_TRUE(runs(sleeper.id(), L"Tile.Viewer.bin"));  // without the extension
  EXPECT_FALSE(runs(sleeper.id(), L"Tile"));
  EXPECT_FALSE(runs(sleeper.id(), L"Viewer"));
  EXPECT_FALSE(runs(sleeper.id(), L"sleep"));
}

TEST(LinuxProcessesTest, AreKnownWhenTheirProgramWasRemovedMeanwhile) {
  const Sleeper sleeper("viewer");
  std::filesystem::remove(sleeper.folder() / "viewer");
  EXPECT_TRUE(runs(sleeper.id(), L"viewer"));
  EXPECT_FALSE(runs(sleeper.id(), L"other"));
}

TEST(LinuxProcessesTest, WithANameThatIsNoUtf8RunAnotherProgram) {
  const Sleeper sleeper("viewer\xFF");
  EXPECT_FALSE(runs(sleeper.id(), L"viewer"));
}

TEST(LinuxProcessesTest, OfOtherUsersAreKnownByTheStartOfTheirName) {
  if (!isSuperuser()) {
    GTEST_SKIP() << "takes a process of another user";
  }
  const Sleeper sleeper("a-viewer-with-a-long-name.bin");
  const auto seenByNobody = [&](const std::wstring& executable) {
    return inChildProcess([&] {
      std::error_code unreadable;
      if (!becomeUser(kNobody) ||
          !std::filesystem::read_symlink("/proc/" + std::to_string(sleeper.id()) + "/exe", unreadable).empty()) {
        return 2;
      }
      return runs(sleeper.id(), executable) ? 1 : 0;
    });
  };
  EXPECT_EQ(seenByNobody(L"a-viewer-with-a-long-name.bin"), 1);
  EXPECT_EQ(seenByNobody(L"A-VIEWER-WITH-a-long-name.bin"), 1);
  EXPECT_EQ(seenByNobody(L"a-viewer-with-bones.bin"), 0);  // differs in the 15th byte
  EXPECT_EQ(seenByNobody(L"a-viewer"), 0);
}

TEST(LinuxProcessesTest, AreNoThreads) {
  std::atomic<std::int32_t> threadId = 0;
  std::atomic<bool> done = false;
  std::thread thread([&] {
    threadId = gettid();
    while (!done) {
      std::this_thread::yield();
    }
  });
  while (threadId == 0) {
    std::this_thread::yield();
  }
  const std::wstring program = std::filesystem::canonical("/proc/self/exe").filename().wstring();
  EXPECT_TRUE(runs(getpid(), program));
  EXPECT_FALSE(runs(threadId, program));
  done = true;
  thread.join();
}

TEST(LinuxProcessesTest, AreDeadOnceTheyHaveEndedThoughNoOneWaitedForThem) {
  const std::wstring program = std::filesystem::canonical("/proc/self/exe").filename().wstring();
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_FALSE(runs(child, program));
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(runs(child, program));
}

TEST(LinuxProcessesTest, HaveIdsAboveZero) {
  const std::wstring program = std::filesystem::canonical("/proc/self/exe").filename().wstring();
  EXPECT_TRUE(platform::runningProcesses({0, -1, -getpid(), std::numeric_limits<std::int32_t>::min(),
                                          std::numeric_limits<std::int32_t>::max()},
                                         program)
                  .empty());
}

}  // namespace
