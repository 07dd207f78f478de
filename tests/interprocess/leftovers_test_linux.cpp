// Leftovers whose process ids only Linux can have given to something else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

}  // namespace
