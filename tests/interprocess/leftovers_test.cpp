// The files of processes that end without releasing their images, and who removes them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <tuple>

#include "worker.h"

namespace {

using namespace interprocess;
using testing::Combine;
using testing::IsEmpty;
using testing::UnorderedElementsAreArray;
using testing::Values;

constexpr const char* kCleans = "[FileMappingDirHelper::clearRubbish] need to clear cache!";
constexpr const char* kLeavesAlone = "[FileMappingDirHelper::clearRubbish] not clear cache!";

// An image of 600 small tiles: making it takes a while.
constexpr const char* kManyTiles = " 8 2457600 files";

// ---- A process that is killed

enum class Moment { Creating, Made, StartingToWrite, Writing, Releasing };

struct KilledAt {
  Moment moment;
  const char* name;
};

void PrintTo(const KilledAt& at, std::ostream* out) { *out << at.name; }

struct FirstImage {
  const char* size;
  const char* name;
};

void PrintTo(const FirstImage& image, std::ostream* out) { *out << image.name; }

class KilledTest : public testing::TestWithParam<std::tuple<KilledAt, FirstImage>> {
 protected:
  // Brings a worker to the moment and kills it there.
  void killAt(Moment moment) {
    Worker worker(program_);
    if (moment == Moment::Creating) {
      worker.tell(std::string("make a") + kManyTiles);
      ASSERT_TRUE(eventually([&] { return !program_.backingFiles().empty(); }));
    } else {
      ASSERT_EQ(worker.ask(std::string("make a") + (moment == Moment::Releasing ? kManyTiles : kFourTiles)), "made");
    }
    if (moment == Moment::StartingToWrite || moment == Moment::Writing) {
      ASSERT_EQ(worker.ask("write-on a"), "writing");
    }
    if (moment == Moment::Writing) {
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    if (moment == Moment::Releasing) {
      const std::size_t all = program_.backingFiles().size();
      worker.tell("unload a");
      ASSERT_TRUE(eventually([&] { return program_.backingFiles().size() < all; }));
    }
    worker.kill();
    if (moment == Moment::Made || moment == Moment::StartingToWrite || moment == Moment::Writing) {
      EXPECT_EQ(program_.backingFiles(), backingFileNames(worker.id(), 0, 4));
    }
  }

  const Home home_;
  const Program program_{home_};
};

TEST_P(KilledTest, LeavesItsFilesToTheNextProcess) {
  const auto& [at, first] = GetParam();
  ASSERT_NO_FATAL_FAILURE(killAt(at.moment));
  const auto left = static_cast<int>(program_.backingFiles().size());

  Worker next(program_);
  EXPECT_EQ(static_cast<int>(program_.backingFiles().size()), left) << "nothing is removed before the first image";
  EXPECT_EQ(next.ask(std::string("make b") + first.size), "made");
  EXPECT_EQ(next.logged(kCleans), 1);
  EXPECT_EQ(next.logged("is removed!"), left);
  EXPECT_EQ(program_.backingFiles(), backingFileNames(next.id(), 0, first.size == kFourTiles ? 4 : 0));
  EXPECT_EQ(next.ask("write b 7"), "written");
  EXPECT_EQ(next.ask("read b 7"), "same");
  EXPECT_EQ(next.ask("unload b"), "unloaded");
  EXPECT_THAT(program_.backingFiles(), IsEmpty());
  EXPECT_EQ(next.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(, KilledTest,
                         Combine(Values(KilledAt{Moment::Creating, "Creating"}, KilledAt{Moment::Made, "Made"},
                                        KilledAt{Moment::StartingToWrite, "StartingToWrite"},
                                        KilledAt{Moment::Writing, "Writing"}, KilledAt{Moment::Releasing, "Releasing"}),
                                 Values(FirstImage{kInMemory, "InMemory"}, FirstImage{kFourTiles, "InFiles"})),
                         [](const auto& parameters) {
                           return std::string(std::get<0>(parameters.param).name) + "_Next" +
                                  std::get<1>(parameters.param).name;
                         });

}  // namespace
