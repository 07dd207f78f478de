// The configuration file of a user, as programs find it. (On Windows all tests share the user's folder, and with it the
// file.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "support/default_configuration.h"
#include "worker.h"

namespace {

namespace fs = std::filesystem;
using namespace interprocess;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Values;

class ConfigurationTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(home_.dataFolder()); }

  void configure(const std::string& text) const { std::ofstream(home_.configurationFile()) << text; }

  void configureRoots(const std::vector<fs::path>& roots) const {
    std::string list;
    for (const fs::path& root : roots) {
      list += (list.empty() ? "\"" : ", \"") + root.string() + '"';
    }
    configure(R"({"meta": {"mainVersion": 1, "subVersion": 0, "type": "FileMapingConfig"}, "desc": {"rootDirList": [)" +
              list + R"(], "bAlternateUseDisk": true}})");
  }

  std::string configuration() const {
    std::ifstream file(home_.configurationFile());
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // An image in memory works, and the process ends as it should.
  static void expectUsableWithoutFiles(Worker& worker) {
    EXPECT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
    EXPECT_EQ(worker.ask("write memory 1"), "written");
    EXPECT_EQ(worker.ask("read memory 1"), "same");
    EXPECT_EQ(worker.end(), 0);
  }

  // An image in files works; its files are in `folder` and nowhere else.
  void expectFilesIn(Worker& worker, const fs::path& folder) const {
    EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made") << worker.log(3);
    EXPECT_EQ(namesIn(folder), backingFileNames(worker.id(), 0, 4));
    EXPECT_EQ(backingFilesBelow(home_.folder()).size(), 4U);
    EXPECT_EQ(worker.ask("write a 1"), "written");
    EXPECT_EQ(worker.ask("read a 1"), "same");
    EXPECT_EQ(worker.ask("unload a"), "unloaded");
    EXPECT_THAT(backingFilesBelow(home_.folder()), IsEmpty());
  }

  fs::path onlyCacheFolder(const fs::path& root) const {
    const auto folders = program_.cacheFolders(root);
    EXPECT_EQ(folders.size(), 1U) << root;
    return folders.empty() ? fs::path() : folders[0];
  }

  fs::path defaultRoot() const { return home_.dataFolder() / "caches"; }

  const Home home_;
  const Program program_{home_};
};

// ---- Roots

TEST_F(ConfigurationTest, PutsTheFilesBelowTheRootThatItNames) {
  const fs::path root = home_.folder() / "else" / "where";
  configureRoots({root});
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
  expectFilesIn(worker, onlyCacheFolder(root));
  EXPECT_FALSE(fs::exists(defaultRoot()));
  EXPECT_EQ(worker.log(3), "");
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(ConfigurationTest, NamesRootsInUtf8) {
  const fs::path root = home_.folder() / "M\u00fcller \u6f22\u5b57 \U0001f5c2" / "";
  configureRoots({root});
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
  expectFilesIn(worker, onlyCacheFolder(root));
  EXPECT_EQ(worker.log(3), "");
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made");
  worker.kill();
  Worker next(program_);
  EXPECT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(next.logged("is removed!"), 4);
  EXPECT_THAT(backingFilesBelow(home_.folder()), IsEmpty());
}

TEST_F(ConfigurationTest, MayNameARootThatIsRelative) {
  configureRoots({"relative"});
  fs::create_directory(home_.folder() / "\u00fcber");
  const fs::path before = fs::current_path();
  fs::current_path(home_.folder() / "\u00fcber");
  Worker worker(program_);
  fs::current_path(before);
  ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made") << worker.log();
  expectFilesIn(worker, onlyCacheFolder(home_.folder() / "\u00fcber" / "relative"));
}

TEST_F(ConfigurationTest, HasTheRootThatItNamesCleanedUp) {
  configureRoots({home_.folder() / "elsewhere"});
  Worker dead(program_);
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  dead.kill();
  EXPECT_EQ(backingFilesBelow(home_.folder() / "elsewhere").size(), 4U);
  Worker next(program_);
  EXPECT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(next.logged("is removed!"), 4);
  EXPECT_THAT(backingFilesBelow(home_.folder()), IsEmpty());
}

TEST_F(ConfigurationTest, FailsImagesInFilesOnlyIfItsRootCannotBeMade) {
  std::ofstream(home_.folder() / "file") << "not a folder";
  const fs::path root = home_.folder() / "file" / "root";
  configureRoots({root});
  Worker worker(program_);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"create_directories(p): invalid argument", root.string()})) << worker.log();
  EXPECT_EQ(worker.ask(std::string("make b") + kFourTiles), "null") << "the second one, too";
  EXPECT_THAT(backingFilesBelow(home_.folder()), IsEmpty());
  expectUsableWithoutFiles(worker);
}

TEST_F(ConfigurationTest, FailsImagesInFilesIfOneOfItsRootsCannotBeMade) {
  configureRoots({home_.folder() / "good", "/proc/none"});
  Worker worker(program_);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"create_directories(p): invalid argument", "/proc/none"})) << worker.log();
  expectUsableWithoutFiles(worker);
}

TEST_F(ConfigurationTest, IsReadAgainWhenItsRootCouldNotBeMade) {
  configureRoots({"/proc/none"});
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  const fs::path root = home_.folder() / "mended";
  configureRoots({root});
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(namesIn(onlyCacheFolder(root)), backingFileNames(worker.id(), 0, 4));
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(ConfigurationTest, MayNameARootThatIsNoText) {
  configure("{\"desc\": {\"rootDirList\": [\"/tmp/\xff\xfe\"]}}");
  Worker worker(program_);
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_NE(worker.log(4), "");
  EXPECT_THAT(backingFilesBelow(home_.folder()), IsEmpty());
  expectUsableWithoutFiles(worker);
}

// ---- What counts as nothing configured

class WrongTypesTest : public ConfigurationTest, public testing::WithParamInterface<const char*> {};

TEST_P(WrongTypesTest, CountAsMissing) {
  configure(GetParam());
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
  expectFilesIn(worker, onlyCacheFolder(defaultRoot()));
  EXPECT_EQ(worker.log(3), "");
  EXPECT_EQ(configuration(), GetParam()) << "the user's file is not touched";
  EXPECT_EQ(worker.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(, WrongTypesTest,
                         Values("{}", "[]", "7", R"({"desc": 5})", R"({"desc": {"rootDirList": "/tmp"}})",
                                R"({"desc": {"rootDirList": {"0": "/tmp"}}})",
                                R"({"desc": {"rootDirList": [1, null, {}, [], true, ""]}})",
                                R"({"desc": {"bAlternateUseDisk": "yes"}, "meta": []})"));

// ---- What cannot be read

class UnreadableTest : public ConfigurationTest {
 protected:
  // The reason is logged, and the default root is used.
  void expectDefaults() const {
    Worker worker(program_);
    ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
    EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::getFromConfigW] json read failed"})) << worker.log(3);
    expectFilesIn(worker, onlyCacheFolder(defaultRoot()));
    EXPECT_EQ(worker.end(), 0);
  }
};

TEST_F(UnreadableTest, NoJson) {
  configure("rootDirList = /tmp\n");
  expectDefaults();
  EXPECT_EQ(configuration(), "rootDirList = /tmp\n");
}

TEST_F(UnreadableTest, Empty) {
  configure("");
  expectDefaults();
}

TEST_F(UnreadableTest, CutShort) {
  configure(R"({"desc": {"rootDirList": [")");
  expectDefaults();
}

TEST_F(UnreadableTest, BracketsWithoutEnd) {
  std::string brackets;
  brackets.resize(10'000'000, '[');
  configure(brackets);
  expectDefaults();
}

TEST_F(UnreadableTest, Pipe) {
  ASSERT_EQ(mkfifo(home_.configurationFile().c_str(), 0600), 0);
  expectDefaults();
  EXPECT_TRUE(fs::is_fifo(home_.configurationFile()));
}

TEST_F(UnreadableTest, Folder) {
  fs::create_directory(home_.configurationFile());
  expectDefaults();
}

TEST_F(UnreadableTest, BeingWritten) {
  configureRoots({home_.folder() / "elsewhere"});
  const int file = open(home_.configurationFile().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(file, LOCK_EX), 0);
  expectDefaults();
  close(file);
}

// ---- The file that is written when there is none

TEST_F(ConfigurationTest, IsCompleteHoweverManyProcessesFindNone) {
  fs::remove_all(home_.userData());
  std::vector<std::unique_ptr<Worker>> workers;
  while (workers.size() < 16) {
    workers.push_back(std::make_unique<Worker>(program_));
  }
  for (const auto& worker : workers) {
    worker->tell(std::string("make a") + kInMemory);
  }
  for (const auto& worker : workers) {
    EXPECT_EQ(worker->answer(), "made");
    EXPECT_EQ(worker->log(4), "");
  }
  EXPECT_EQ(configuration(), support::kDefaultConfiguration);
  EXPECT_THAT(namesIn(home_.dataFolder()), ElementsAre("KvTileImage_FileMapingConfig.json",
                                                       "KvTileImage_InterprocessRubbishCleaner.filelock", "caches"));
}

// ---- Folders that belong to someone else

class RightsTest : public ConfigurationTest {
 protected:
  // Gives the folders of the test to everyone, and has the worker be no one in particular.
  void SetUp() override {
    ConfigurationTest::SetUp();
    for (const fs::path& folder :
         {home_.userData(), home_.userData() / "Korvane", home_.dataFolder(), program_.path().parent_path()}) {
      fs::permissions(folder, fs::perms::all);
    }
  }

  void become(Worker& worker) const {
    if (geteuid() == 0 && worker.ask("become 65534") != "became") {
      GTEST_SKIP() << "this process may not become another user";
    }
  }
};

TEST_F(RightsTest, ToReadTheConfigurationAreNeeded) {
  configureRoots({home_.folder() / "elsewhere"});
  fs::permissions(home_.configurationFile(), fs::perms::none);
  Worker worker(program_);
  become(worker);
  if (IsSkipped()) {
    return;
  }
  ASSERT_EQ(worker.ask(std::string("make memory") + kInMemory), "made");
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::getFromConfigW] json read failed"})) << worker.log(3);
  expectFilesIn(worker, onlyCacheFolder(defaultRoot()));
  EXPECT_EQ(worker.end(), 0);
}

TEST_F(RightsTest, ToWriteAnywhereAreNeededForImagesInFilesOnly) {
  const auto readOnly = fs::perms::owner_read | fs::perms::owner_exec | fs::perms::others_read | fs::perms::others_exec;
  fs::permissions(home_.dataFolder(), readOnly);
  fs::permissions(program_.path().parent_path(), readOnly);
  Worker worker(program_);
  become(worker);
  if (IsSkipped()) {
    return;
  }
  EXPECT_EQ(worker.ask(std::string("make a") + kFourTiles), "null");
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::getFromConfigW] json write failed"})) << worker.log(3);
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::initRootDirList] rootDirList is empty"}));
  EXPECT_TRUE(worker.loggedError({"[FileMappingDirHelper::FileMappingDirHelper] init failed"}));
  EXPECT_TRUE(worker.loggedError({"FileMappingDirHelper instance is invalid"}));
  expectUsableWithoutFiles(worker);
  fs::permissions(home_.dataFolder(), fs::perms::all);
  fs::permissions(program_.path().parent_path(), fs::perms::all);
}

TEST_F(RightsTest, ToTheProgramsFolderAreNotNeeded) {
  fs::permissions(program_.path().parent_path(),
                  fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  if (geteuid() != 0) {
    GTEST_SKIP() << "needs a folder of another user's";
  }
  Worker dead(program_);
  become(dead);
  if (IsSkipped()) {
    return;
  }
  ASSERT_EQ(dead.ask(std::string("make a") + kFourTiles), "made");
  EXPECT_EQ(dead.logged("[FileMappingDirHelper::clearRubbish] need to clear cache!"), 1);
  EXPECT_FALSE(fs::exists(program_.hostCacheRoot()));
  dead.kill();

  Worker next(program_);
  become(next);
  EXPECT_EQ(next.ask(std::string("make b") + kInMemory), "made");
  EXPECT_EQ(next.logged("is removed!"), 4);
  EXPECT_EQ(next.log(4), "");
}

TEST_F(RightsTest, OfFilesAndFoldersAreTheUsersAlone) {
  fs::remove_all(home_.userData());
  Worker worker(program_);
  ASSERT_EQ(worker.ask(std::string("make a") + kFourTiles), "made");
  const fs::path folder = onlyCacheFolder(defaultRoot());
  for (const fs::path& made : {home_.dataFolder(), defaultRoot(), folder, program_.hostCacheRoot()}) {
    EXPECT_EQ(fs::status(made).permissions(), fs::perms::owner_all) << made;
  }
  for (const fs::path& file : backingFilesBelow(folder)) {
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write) << file;
  }
  EXPECT_EQ(fs::status(home_.configurationFile()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(worker.ask("unload a"), "unloaded");
}

}  // namespace
