// What people see while the program works.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/terminal.h"
#include "support/tiffs.h"

namespace {

using support::pattern;
using support::Process;
using support::Sandbox;
using support::Terminal;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ProgressTest, ShowsThePhasesAndClearsTheLine) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(1500, 1500, 3, 8)));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "rotate", "90", "in.png", "out.png"}, sandbox.folder(), terminal.slave());
  ASSERT_TRUE(terminal.waitFor("writing"));
  EXPECT_EQ(process.wait().status, 0);
  EXPECT_THAT(terminal.screen(), IsEmpty());
  const std::string text = terminal.text();
  const std::size_t reading = text.find("reading [");
  const std::size_t turning = text.find("turning [");
  const std::size_t writing = text.find("writing [");
  EXPECT_LT(reading, turning);
  EXPECT_LT(turning, writing);
  EXPECT_NE(writing, std::string::npos);
  EXPECT_THAT(text, HasSubstr("reading [........................................]   0%"));
  EXPECT_THAT(text, HasSubstr("writing [########################################] 100%"));
  EXPECT_EQ(text.find('\n'), std::string::npos) << "one line that is written over";
}

TEST(ProgressTest, DoesNotMixWithMessages) {
  const Sandbox sandbox;
  support::Tiff source = support::tiffOf(pattern(300, 200, 3, 8));
  source.pages = 2;
  support::writeTiff(sandbox.path("in.tif"), source);
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "rotate", "90", "in.tif", "out.tif"}, sandbox.folder(), terminal.slave());
  EXPECT_EQ(process.wait().status, 0);
  EXPECT_THAT(terminal.screen(), ElementsAre("kvtile: in.tif has 2 pages; only the first is read"));
}

TEST(ProgressTest, DoesNotMixWithDetails) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(300, 200, 3, 8)));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "rotate", "90", "in.png", "out.png", "--verbose"}, sandbox.folder(),
                  terminal.slave());
  EXPECT_EQ(process.wait().status, 0);
  const std::vector<std::string> lines = terminal.screen();
  EXPECT_THAT(lines, testing::Not(IsEmpty()));
  EXPECT_THAT(lines, testing::Each(testing::StartsWith("kvtile: KvTileImage: ")));
}

TEST(ProgressTest, AFailureEndsTheLineToo) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(1500, 1500, 3, 8)));
  sandbox.write("short.png", sandbox.read("in.png").substr(0, 4000000));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "rotate", "90", "short.png", "out.png"}, sandbox.folder(), terminal.slave());
  EXPECT_EQ(process.wait().status, 1);
  EXPECT_THAT(terminal.text(), HasSubstr("reading ["));
  EXPECT_THAT(terminal.screen(), ElementsAre(testing::StartsWith("kvtile: short.png: the pixels cannot be read")));
}

TEST(ProgressTest, QuietShowsNothing) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(300, 200, 3, 8)));
  Terminal terminal;
  Process process({KVTILE_PROGRAM, "rotate", "90", "--quiet", "in.png", "out.png"}, sandbox.folder(), terminal.slave());
  EXPECT_EQ(process.wait().status, 0);
  EXPECT_EQ(terminal.text(), "");
}

TEST(ProgressTest, APipeGetsNothing) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(300, 200, 3, 8)));
  const support::Result result =
      sandbox.run({"sh", "-c", std::string(KVTILE_PROGRAM) + " rotate 90 in.png out.png 2>&1 | cat"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_THAT(sandbox.names(), ElementsAre("in.png", "out.png"));
}

}  // namespace
