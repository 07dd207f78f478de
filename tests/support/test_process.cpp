// Prepares each test program: it keeps the library's files in a folder of its own where the system lets a process
// choose that, and what the library does once in a process is done before the tests begin.
#include <gtest/gtest.h>

#include <cstdlib>

#include "kvtileimage/KvTileImage.h"
#include "support/scratch_folder.h"

namespace {

class TestProcess : public testing::Environment {
 public:
  void SetUp() override {
#ifndef _WIN32
    setenv("XDG_DATA_HOME", dataFolder_.path().c_str(), 1);
#endif
    KvTileImage_Unload(KvTileImage_Alloc(1, 1, 1, 8, KVTI_SAMPLEFORMAT_UINT, 0));
  }

 private:
  support::ScratchFolder dataFolder_;
};

[[maybe_unused]] testing::Environment* const environment = testing::AddGlobalTestEnvironment(new TestProcess);

}  // namespace
