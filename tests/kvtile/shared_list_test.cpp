// What `kvtile shared` tells, and that telling changes nothing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/sharer.h"

namespace {

using support::dataFolderState;
using support::filesOfSharedImages;
using support::pattern;
using support::Process;
using support::Result;
using support::Sandbox;
using support::Sharer;
using testing::IsEmpty;

constexpr char kHeader[] = "IDENTIFIER  PIXELS     SAMPLES               STATE\n";

class SharedListTest : public testing::Test {
 protected:
  SharedListTest() {
    sandbox_.copyProgram();
    support::writePng(sandbox_.path("colour.png"), support::pngOf(pattern(600, 400, 3, 8)));
    support::writePng(sandbox_.path("grey.png"), support::pngOf(pattern(60, 40, 1, 1)));
  }

  std::string list() const {
    const Result result = sandbox_.kvtile({"shared"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return result.out;
  }

  std::filesystem::path library() const { return support::dataFolderFor(sandbox_.folder()) + "/Korvane/KvTileImage"; }

  void writeDescriptor(const std::string& identifier, const std::string& text) const {
    const std::filesystem::path path = library() / "interprocessId/json" / (identifier + ".json");
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }

  Sandbox sandbox_;
};

TEST_F(SharedListTest, NothingIsSaidToBeNothing) {
  EXPECT_EQ(list(), "nothing is shared\n");
  EXPECT_FALSE(std::filesystem::exists(support::dataFolderFor(sandbox_.folder()))) << "nothing was made";
}

TEST_F(SharedListTest, ListsByIdentifierWhoeverSharesIt) {
  Sharer colour(sandbox_, {"scans/page-1", "colour.png"});
  Sharer grey(sandbox_, {"mask", "grey.png"});
  EXPECT_EQ(list(),
            "IDENTIFIER    PIXELS     SAMPLES               STATE\n"
            "mask          60 x 40    1 x 1 bit, unsigned   held\n"
            "scans/page-1  600 x 400  3 x 8 bits, unsigned  held\n");
  EXPECT_EQ(grey.end().status, 0);
  EXPECT_EQ(colour.end().status, 0);
  EXPECT_EQ(list(), "nothing is shared\n");
}

TEST_F(SharedListTest, ColumnsAreCountedInCharacters) {
  Sharer colour(sandbox_, {"\xc3\xa4\xc3\xb6\xc3\xbc seite 7.9", "colour.png"});
  EXPECT_EQ(list(),
            "IDENTIFIER     PIXELS     SAMPLES               STATE\n"
            "\xc3\xa4\xc3\xb6\xc3\xbc seite 7.9  600 x 400  3 x 8 bits, unsigned  held\n");
}

TEST_F(SharedListTest, WhatNobodyHoldsIsToldApart) {
  Sharer alive(sandbox_, {"alive", "grey.png"});
  {
    Sharer killed(sandbox_, {"dead", "colour.png"});
    killed.process().send(SIGKILL);
    killed.process().wait();
  }
  EXPECT_EQ(list(), std::string(kHeader) + "alive       60 x 40    1 x 1 bit, unsigned   held\n" +
                        "dead        600 x 400  3 x 8 bits, unsigned  not held\n");
  std::filesystem::remove(library() / "interprocessId/lockfiles/dead.lockfile");
  EXPECT_EQ(list(), std::string(kHeader) + "alive       60 x 40    1 x 1 bit, unsigned   held\n" +
                        "dead        600 x 400  3 x 8 bits, unsigned  not held, its lock file is missing\n");
}

TEST_F(SharedListTest, DescriptorsThatCannotBeReadAreListed) {
  Sharer good(sandbox_, {"good", "colour.png"});
  Sharer spoiled(sandbox_, {"spoiled", "grey.png"});
  writeDescriptor("spoiled", "{\"desc\": ");
  writeDescriptor("sub/empty", "");
  writeDescriptor("zeros", "{\"desc\": {\"interprocessTileImageInfo\": {\"width\": 0, \"height\": \"many\"}}}");
  std::ofstream(library() / "interprocessId/json/no descriptor.txt") << "text";
  std::filesystem::create_directory(library() / "interprocessId/json/folder.json");
  EXPECT_EQ(list(), std::string(kHeader) + "good        600 x 400  3 x 8 bits, unsigned  held\n" +
                        "spoiled     ?          ?                     held, its descriptor cannot be read\n" +
                        "sub/empty   ?          ?                     not held, its lock file is missing, its " +
                        "descriptor cannot be read\n" +
                        "zeros       ?          ?                     not held, its lock file is missing, its " +
                        "descriptor cannot be read\n");
}

TEST_F(SharedListTest, ChangesNothing) {
  Sharer alive(sandbox_, {"alive", "grey.png"});
  {
    Sharer killed(sandbox_, {"dead", "colour.png"});
    killed.process().send(SIGKILL);
    killed.process().wait();
  }
  writeDescriptor("broken", "[");
  const std::vector<std::string> before = dataFolderState(sandbox_);
  for (int i = 0; i < 3; ++i) {
    list();
  }
  EXPECT_EQ(dataFolderState(sandbox_), before);
}

// A look at the locks in the wrong moment would have the last holder think that there is another one.
TEST_F(SharedListTest, DisturbsNobodyWhoLetsGo) {
  for (int round = 0; round < 5; ++round) {
    Sharer sharer(sandbox_, {"scan", "grey.png"});
    Process watcher(
        {"sh", "-c", std::string("for i in 1 2 3 4 5 6 7 8 9 10; do ") + sandbox_.program() + " shared; done"},
        sandbox_.folder());
    EXPECT_EQ(sharer.end().status, 0);
    EXPECT_EQ(watcher.wait().err, "");
    EXPECT_THAT(filesOfSharedImages(sandbox_), IsEmpty());
  }
}

TEST_F(SharedListTest, WaitsWhileAnotherProcessWorksOnSharedImages) {
  Sharer sharer(sandbox_, {"scan", "colour.png"});
  Process other({"flock", "--no-fork", "--exclusive", (library() / "KvTileImage_Interprocess.filelock").string(), "sh",
                 "-c", "echo locked; exec sleep 60"},
                sandbox_.folder());
  ASSERT_EQ(other.firstLine(), "locked");
  Process waiting({sandbox_.program(), "shared"}, sandbox_.folder());
  Process stopped({sandbox_.program(), "shared"}, sandbox_.folder());
  usleep(500000);
  EXPECT_TRUE(waiting.running());
  stopped.send(SIGINT);
  const Result result = stopped.wait();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  other.send(SIGKILL);
  other.wait();
  EXPECT_EQ(waiting.wait().out, std::string(kHeader) + "scan        600 x 400  3 x 8 bits, unsigned  held\n");
}

}  // namespace
