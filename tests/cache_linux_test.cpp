// The cache folders where Linux differs.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cache/file_mapping_dir_helper.h"
#include "cache/file_mapping_file_path_helper.h"
#include "cache/json_helper.h"
#include "platform/utf8.h"
#include "storage/clean_up.h"
#include "support/cache_folders.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

using cache::FileMappingDirHelper;
using cache::Host;
using support::contentsOf;
using support::LogCapture;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

std::string nameFor(pid_t process) { return "process_" + std::to_string(process) + "_0.korvaneFileMapping"; }

class LinuxCacheTest : public support::CacheFoldersTest {
 protected:
  void SetUp() override {
    CacheFoldersTest::SetUp();
    configureRoots({utf8Of(L"a")});
  }

  // The program's cache folder, which is there.
  std::filesystem::path folderOf(const Host& host) const {
    const std::filesystem::path folder = scratch_.path() / "a" / platform::toUtf8(host.tag());
    std::filesystem::create_directories(folder);
    return folder;
  }

  // What a clean-up leaves of a file with this name, if the program is the one that runs this test.
  std::vector<std::string> leftOf(const std::string& name) const {
    const Host own = host(support::ownProgram());
    writeFile(folderOf(own) / name, "bytes");
    const FileMappingDirHelper helper(own);
    return support::namesIn(folderOf(own));
  }
};

TEST_F(LinuxCacheTest, ReadsNoPipes) {
  const std::filesystem::path pipe = scratch_.path() / "a.json";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  LogCapture log;
  rapidjson::Document document;
  EXPECT_FALSE(cache::JsonHelper::read(scratch_.wide() + L"a.json", document));
  EXPECT_FALSE(cache::JsonHelper::write(scratch_.wide() + L"a.json", document, true));
  EXPECT_EQ(log.take(),
            support::errors({("[JsonHelper::read] jsonFilePath:" + pipe.string() + " open failed!").c_str(),
                             ("[JsonHelper::write] jsonFilePath:" + pipe.string() + " create failed!").c_str()}));
}

TEST_F(LinuxCacheTest, KeepsItsFilesFromOtherUsers) {
  const mode_t before = umask(0);
  std::filesystem::remove(configurationFile());
  const FileMappingDirHelper helper(host());
  umask(before);
  const auto rightsOf = [](const std::filesystem::path& path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
  };
  EXPECT_EQ(rightsOf(configurationFile()), 0600U);
  EXPECT_EQ(rightsOf(helper.rootDirList()[0]), 0700U);
  EXPECT_EQ(rightsOf(scratch_.path() / "data/Korvane/KvTileImage/caches"), 0700U);
  EXPECT_EQ(rightsOf(scratch_.path() / "bin/KvTileImageFileMappingCaches"), 0700U);
  EXPECT_EQ(rightsOf(platform::toUtf8(host().cleanUpLockFile())), 0600U);
}

TEST_F(LinuxCacheTest, LeavesSystemFoldersAlone) {
  for (const wchar_t* executable : {L"/usr/bin/viewer", L"/opt/viewer/bin/viewer", L"/bin/viewer"}) {
    const Host host(executable, scratch_.wide());
    EXPECT_EQ(host.hostCacheRoot(), scratch_.wide() + L"Korvane/KvTileImage/KvTileImageFileMappingCaches/");
  }
}

TEST_F(LinuxCacheTest, KeepsBeyondTheBasicPlaneWhatIsBeyondIt) {
  configureRoots({utf8Of(L"\U0001F600")});
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), ElementsAre(cacheFolder(L"\U0001F600")));
  EXPECT_TRUE(std::filesystem::is_directory(scratch_.path() / "\xF0\x9F\x98\x80"));
}

TEST_F(LinuxCacheTest, LeavesLinksAlone) {
  const std::filesystem::path target = scratch_.path() / "target.korvaneFileMapping";
  writeFile(target, "kept");
  std::filesystem::create_symlink(target, folderOf(host()) / "stray.korvaneFileMapping");
  std::filesystem::create_symlink("nowhere", folderOf(host()) / "stray_0_1.korvaneFileMapping");
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(support::namesIn(folderOf(host())),
              ElementsAre("stray.korvaneFileMapping", "stray_0_1.korvaneFileMapping"));
  EXPECT_EQ(contentsOf(target), "kept");
}

TEST_F(LinuxCacheTest, LeavesPipesAlone) {
  ASSERT_EQ(mkfifo((folderOf(host()) / "stray.korvaneFileMapping").c_str(), 0600), 0);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(support::namesIn(folderOf(host())), ElementsAre("stray.korvaneFileMapping"));
}

TEST_F(LinuxCacheTest, CleansUpBesideNamesThatAreNotUtf8) {
  const std::filesystem::path folder = folderOf(host());
  writeFile(folder / "process_0_1\xFF.korvaneFileMapping", "bytes");
  writeFile(folder / "process_0_1.korvaneFileMapping\xFF", "bytes");
  writeFile(folder / "\xC3\x28", "bytes");
  writeFile(folder / "stray.korvaneFileMapping", "bytes");
  LogCapture log(ember_logger::warning);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(support::namesIn(folder),
              testing::UnorderedElementsAre("process_0_1\xFF.korvaneFileMapping", "process_0_1.korvaneFileMapping\xFF",
                                            "\xC3\x28"));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(LinuxCacheTest, TakesAProcessThatNoOneHasWaitedForAsDead) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_THAT(leftOf(nameFor(child)), IsEmpty());
  waitpid(child, nullptr, 0);
}

TEST_F(LinuxCacheTest, TakesAThreadForNoProcess) {
  std::atomic<pid_t> threadId = 0;
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
  EXPECT_THAT(leftOf(nameFor(threadId)), IsEmpty());
  done = true;
  thread.join();
}

TEST_F(LinuxCacheTest, KeepsTheFilesOfAForkedProcess) {
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_THAT(leftOf(nameFor(child)), ElementsAre(nameFor(child)));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  EXPECT_THAT(leftOf(nameFor(child)), IsEmpty());
}

TEST_F(LinuxCacheTest, GivesAForkedProcessNamesOfItsOwn) {
  const auto own = cache::FileMappingFilePathHelper::getUniqueFileInfo(L"a");
  const pid_t child = fork();
  if (child == 0) {
    const auto info = cache::FileMappingFilePathHelper::getUniqueFileInfo(L"a");
    _exit(info && cache::FileMappingFilePathHelper::processIdOf(info->path) == getpid() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_TRUE(own);
  EXPECT_EQ(cache::FileMappingFilePathHelper::processIdOf(own->path), getpid());
}

TEST(ProcessWideCacheTest, IsOneForAllThreads) {
  std::vector<std::shared_ptr<FileMappingDirHelper>> found(4);
  std::vector<std::thread> threads;
  for (auto& helper : found) {
    threads.emplace_back([&helper] { helper = storage::cacheFolders(); });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  ASSERT_NE(found[0], nullptr);
  EXPECT_THAT(found, testing::Each(found[0]));
}

}  // namespace
