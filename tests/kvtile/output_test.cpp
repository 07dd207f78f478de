// Where results go: names, existing files, full disks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::pattern;
using support::Process;
using support::Raster;
using support::Result;
using support::Sandbox;
using testing::ElementsAre;
using testing::HasSubstr;

class OutputTest : public testing::Test {
 protected:
  OutputTest() { support::writePng(sandbox_.path("in.png"), support::pngOf(source_)); }

  // The one line of a failed rotation; `out` is not touched.
  std::string failure(const std::string& out, const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = {"rotate", "90", "in.png", out};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const std::vector<std::string> before = sandbox_.names();
    const Result result = sandbox_.kvtile(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(sandbox_.names(), before);
    return result.err;
  }

  Sandbox sandbox_;
  Raster source_ = pattern(60, 40, 3, 8);
};

TEST_F(OutputTest, RefusesAnExistingFile) {
  sandbox_.write("out.png", "precious");
  EXPECT_EQ(failure("out.png"),
            "kvtile: out.png: exists already; give --force to replace it, or choose another name\n");
  EXPECT_EQ(sandbox_.read("out.png"), "precious");
}

TEST_F(OutputTest, ReplacesAnExistingFileWhenForced) {
  sandbox_.write("out.png", "precious");
  ASSERT_EQ(chmod(sandbox_.path("out.png").c_str(), 0640), 0);
  EXPECT_EQ(sandbox_.kvtile({"rotate", "90", "in.png", "out.png", "--force"}).status, 0);
  EXPECT_EQ(difference(rotated90(source_), support::readPng(sandbox_.path("out.png")).raster), "");
  struct stat status = {};
  ASSERT_EQ(stat(sandbox_.path("out.png").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U) << "the access rights stay";
  EXPECT_THAT(sandbox_.names(), ElementsAre("in.png", "out.png"));
}

TEST_F(OutputTest, ReplacesNothingWhenItFails) {
  sandbox_.write("out.png", "precious");
  sandbox_.write("bad.png", sandbox_.read("in.png").substr(0, 3000));
  EXPECT_EQ(sandbox_.kvtile({"rotate", "90", "bad.png", "out.png", "--force"}).status, 1);
  EXPECT_EQ(sandbox_.read("out.png"), "precious");
  EXPECT_THAT(sandbox_.names(), ElementsAre("bad.png", "in.png", "out.png"));
}

TEST_F(OutputTest, RefusesItsInputUnlessForced) {
  const std::string before = sandbox_.read("in.png");
  std::filesystem::create_symlink("in.png", sandbox_.path("link.png"));
  std::filesystem::create_hard_link(sandbox_.path("in.png"), sandbox_.path("twin.png"));
  for (const char* name : {"in.png", "./in.png", "link.png", "twin.png"}) {
    EXPECT_EQ(failure(name), std::string("kvtile: ") + name +
                                 ": is the input file itself; give --force to replace it, or choose another name\n");
  }
  EXPECT_EQ(sandbox_.read("in.png"), before);
}

TEST_F(OutputTest, ReplacesItsInputSafelyWhenForced) {
  EXPECT_EQ(sandbox_.kvtile({"rotate", "90", "in.png", "in.png", "--force"}).status, 0);
  EXPECT_EQ(difference(rotated90(source_), support::readPng(sandbox_.path("in.png")).raster), "");
  std::filesystem::create_symlink("in.png", sandbox_.path("link.png"));
  EXPECT_EQ(sandbox_.kvtile({"rotate", "90", "in.png", "link.png", "--force"}).status, 0);
  EXPECT_EQ(difference(rotated90(source_), support::readPng(sandbox_.path("in.png")).raster), "")
      << "the link is what has the name; the file that it led to stays";
  EXPECT_EQ(difference(rotated180(source_), support::readPng(sandbox_.path("link.png")).raster), "");
  EXPECT_THAT(sandbox_.names(), ElementsAre("in.png", "link.png"));
}

TEST_F(OutputTest, KeepsALargeInputUntilTheNewOneIsComplete) {
  support::Tiff source = support::tiffOf(pattern(700, 500, 3, 8));
  source.compression = COMPRESSION_LZW;
  support::writeTiff(sandbox_.path("a.tif"), source);
  EXPECT_EQ(sandbox_.kvtile({"mirror", "vertical", "--force", "a.tif", "a.tif"}).status, 0);
  EXPECT_EQ(difference(mirroredTopBottom(source.raster), support::readTiff(sandbox_.path("a.tif")).raster), "");
}

TEST_F(OutputTest, RefusesLinksThatLeadNowhereUnlessForced) {
  std::filesystem::create_symlink("nowhere", sandbox_.path("out.png"));
  EXPECT_THAT(failure("out.png"), HasSubstr("exists already"));
}

TEST_F(OutputTest, RefusesFoldersAndDevicesEvenWhenForced) {
  std::filesystem::create_directory(sandbox_.path("folder.png"));
  EXPECT_EQ(failure("folder.png", {"--force"}), "kvtile: folder.png: is a folder; name a file in it\n");
  ASSERT_EQ(mkfifo(sandbox_.path("pipe.png").c_str(), 0600), 0);
  EXPECT_EQ(failure("pipe.png", {"--force"}), "kvtile: pipe.png: is not an ordinary file; choose another name\n");
}

TEST_F(OutputTest, RefusesMissingFolders) {
  EXPECT_EQ(failure("no/such/out.png"), "kvtile: no/such/out.png: there is no folder 'no/such'; make it first\n");
  EXPECT_EQ(failure("in.png/out.png"), "kvtile: in.png/out.png: 'in.png' is not a folder; choose another folder\n");
}

TEST_F(OutputTest, LongNamesGetATemporaryNameThatFits) {
  const std::string name = std::string(251, 'n') + ".png";
  EXPECT_EQ(sandbox_.kvtile({"rotate", "90", "in.png", name}).status, 0);
  EXPECT_THAT(sandbox_.names(), ElementsAre("in.png", name));
}

TEST_F(OutputTest, RefusesInputsThatAreNoPictureFiles) {
  const std::pair<const char*, const char*> cases[] = {
      {"missing.png", "there is no such file; check the name"},
      {".", "is a folder; name a file in it"},
      {"/dev/null", "is not an ordinary file; copy its contents to a file first"},
      {"empty.png", "is empty; name a PNG or TIFF file"},
      {"text.png", "is neither a PNG nor a TIFF file; convert it to one of these first"},
      {"short.png", "is neither a PNG nor a TIFF file; convert it to one of these first"}};
  sandbox_.write("empty.png", "");
  sandbox_.write("text.png", "no picture at all");
  sandbox_.write("short.png", "\x89P");
  for (const auto& [name, what] : cases) {
    const Result result = sandbox_.kvtile({"rotate", "90", name, "out.png"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, std::string("kvtile: ") + name + ": " + what + "\n");
  }
}

TEST_F(OutputTest, ReadsByContentsNotByName) {
  std::filesystem::copy_file(sandbox_.path("in.png"), sandbox_.path("liar.tif"));
  EXPECT_EQ(sandbox_.kvtile({"convert", "liar.tif", "out.tif"}).status, 0);
  EXPECT_EQ(difference(source_, support::readTiff(sandbox_.path("out.tif")).raster), "");
}

// The name is taken while the program works: what it finds there at the end is not its to replace.
TEST_F(OutputTest, DoesNotReplaceWhatAppearedMeanwhile) {
  support::writePng(sandbox_.path("big.png"), support::pngOf(pattern(2500, 2500, 3, 8)));
  Process process({KVTILE_PROGRAM, "rotate", "90", "big.png", "out.png"}, sandbox_.folder());
  const auto temporaryExists = [this] {
    const auto names = sandbox_.names();
    return std::any_of(names.begin(), names.end(), [](const std::string& name) { return name.ends_with(".part"); });
  };
  while (process.running() && !temporaryExists()) {
    usleep(200);
  }
  ASSERT_TRUE(process.running()) << "it finished before it could be caught at work";
  sandbox_.write("out.png", "precious");
  const Result result = process.wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "kvtile: out.png: exists already; give --force to replace it, or choose another name\n");
  EXPECT_EQ(sandbox_.read("out.png"), "precious");
  EXPECT_THAT(sandbox_.names(), ElementsAre("big.png", "in.png", "out.png"));
}

TEST_F(OutputTest, TheTemporaryFileIsHiddenBesideTheOutput) {
  support::writePng(sandbox_.path("big.png"), support::pngOf(pattern(2500, 2500, 3, 8)));
  std::filesystem::create_directory(sandbox_.path("sub"));
  Process process({KVTILE_PROGRAM, "rotate", "90", "big.png", "sub/out.png"}, sandbox_.folder());
  std::vector<std::string> seen;
  while (process.running() && seen.empty()) {
    for (const auto& entry : std::filesystem::directory_iterator(sandbox_.path("sub"))) {
      seen.push_back(entry.path().filename().string());
    }
  }
  ASSERT_THAT(seen, testing::SizeIs(1));
  EXPECT_THAT(seen[0], testing::MatchesRegex("\\.out\\.png\\.[0-9]+\\.part"));
  EXPECT_EQ(process.wait().status, 0);
}

TEST_F(OutputTest, AFileSizeLimitIsAFailureLikeAnyOther) {
  for (const char* name : {"out.png", "out.tif"}) {
    const Result result = sandbox_.run({"prlimit", "--fsize=4000", KVTILE_PROGRAM, "rotate", "90", "in.png", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, std::string("kvtile: ") + name +
                              ": cannot be written (File too large); free some space or choose another disk\n");
    EXPECT_THAT(sandbox_.names(), ElementsAre("in.png"));
  }
}

// A small disk of its own. Only root may mount one.
class FullDiskTest : public OutputTest {
 protected:
  void SetUp() override {
    std::filesystem::create_directory(disk_);
    mounted_ = mount("kvtile-test", disk_.c_str(), "tmpfs", 0, "size=256k") == 0;
    if (!mounted_) {
      GTEST_SKIP() << "a file system of its own cannot be mounted here (root only)";
    }
  }
  void TearDown() override {
    if (mounted_) {
      umount2(disk_.c_str(), MNT_DETACH);
    }
  }

  std::vector<std::string> onDisk() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(disk_)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  std::string disk_ = sandbox_.path("disk");
  bool mounted_ = false;
};

TEST_F(FullDiskTest, AFullDiskIsToldAndLeavesNothing) {
  support::writePng(sandbox_.path("big.png"), support::pngOf(pattern(700, 700, 3, 8)));
  for (const char* name : {"disk/out.png", "disk/out.tif"}) {
    const Result result = sandbox_.kvtile({"rotate", "90", "big.png", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              std::string("kvtile: ") + name +
                  ": cannot be written (No space left on device); free some space or choose another disk\n");
    EXPECT_THAT(onDisk(), testing::IsEmpty());
  }
}

// A result that fits the buffers meets the full disk only when they are emptied.
TEST_F(FullDiskTest, ADiskThatIsFullFromTheStartIsTold) {
  const Result filled = sandbox_.run({"sh", "-c", "cat /dev/zero > disk/filler"});
  ASSERT_NE(filled.status, 0);
  support::writePng(sandbox_.path("small.png"), support::pngOf(pattern(10, 10, 1, 8)));
  for (const char* name : {"disk/out.png", "disk/out.tif"}) {
    const Result result = sandbox_.kvtile({"rotate", "90", "small.png", name});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("(No space left on device)"));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
    EXPECT_THAT(onDisk(), ElementsAre("filler"));
  }
}

TEST_F(FullDiskTest, ADiskThatMayNotBeWrittenIsTold) {
  ASSERT_EQ(mount(nullptr, disk_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(failure("disk/out.png"),
            "kvtile: disk/out.png: cannot be created (Read-only file system); choose another folder or name\n");
}

}  // namespace
