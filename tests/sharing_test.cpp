// Shared images through the exported functions: two handles in this process are to the library what handles in two
// processes are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "interprocess/shared_image_files.h"
#include "interprocess/sharing_lock.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/paths.h"
#include "platform/system_info.h"
#include "platform/utf8.h"
#include "support/allocation_failures.h"
#include "support/backing_files.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "support/whole_file.h"

namespace {

namespace fs = std::filesystem;

using interprocess::SharedImageFiles;
using support::backingFiles;
using support::errors;
using support::Image;
using support::LogCapture;
using support::LogLine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;

template <class... Parts>
std::string joined(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

// Identifiers of this test's own, in a folder that no other process of the user has.
class SharingTest : public testing::Test {
 protected:
  SharingTest() : folder_(joined("kvtile-test-", std::chrono::steady_clock::now().time_since_epoch().count())) {}

  ~SharingTest() override {
    removeForgotten();
    EXPECT_EQ(filesLeft(), 0) << "of a test that lets go of everything";
    fs::remove_all(pathOf(files_.descriptor(wide("x"))).parent_path());
    fs::remove_all(pathOf(files_.lockFile(wide("x"))).parent_path());
  }

  std::string id(const std::string& name) const { return joined(folder_, '/', name); }

  std::wstring wide(const std::string& name) const { return platform::fromUtf8(id(name)); }

  static fs::path pathOf(const std::wstring& path) { return platform::filesystemPath(path); }

  fs::path descriptor(const std::string& name) const { return pathOf(files_.descriptor(wide(name))); }

  fs::path lockFile(const std::string& name) const { return pathOf(files_.lockFile(wide(name))); }

  std::string shownDescriptor(const std::string& name) const { return platform::toUtf8(files_.descriptor(wide(name))); }

  Image create(const std::string& name, std::uint32_t width, std::uint32_t height, std::uint32_t samples = 1,
               std::uint32_t bits = 8, std::uint32_t sampleformat = KVTI_SAMPLEFORMAT_UINT,
               std::uint32_t operation = KVTI_SCANLINE_OPERATION_ROWCOL) const {
    const LogCapture expected;  // that there was none before
    return createLogged(name, width, height, samples, bits, sampleformat, operation);
  }

  Image createLogged(const std::string& name, std::uint32_t width, std::uint32_t height, std::uint32_t samples = 1,
                     std::uint32_t bits = 8, std::uint32_t sampleformat = KVTI_SAMPLEFORMAT_UINT,
                     std::uint32_t operation = KVTI_SCANLINE_OPERATION_ROWCOL) const {
    return Image(
        KvTileImage_InterprocessA_AllocEx(id(name).c_str(), width, height, samples, bits, sampleformat, operation));
  }

  Image attach(const std::string& name) const { return Image(KvTileImage_InterprocessB_Alloc(id(name).c_str())); }

  // Who lets go of an image while another one of its identifier is held leaves its files to the next process of the
  // program. The test says how many there will be.
  void expectForgotten(std::size_t files) { forgotten_ = files; }

  // Descriptors, lock files and backing files.
  int filesLeft() const {
    int count = static_cast<int>(backingFiles().size());
    for (const fs::path& path : {descriptor("x").parent_path(), lockFile("x").parent_path()}) {
      std::error_code missing;
      for (const auto& entry : fs::recursive_directory_iterator(path, missing)) {
        count += entry.is_regular_file() ? 1 : 0;
      }
    }
    return count;
  }

  // Replaces the first occurrence of `text` in a descriptor.
  void edit(const std::string& name, const std::string& text, const std::string& replacement) const {
    std::string contents = support::contentsOf(descriptor(name));
    const std::size_t at = contents.find(text);
    ASSERT_NE(at, std::string::npos) << contents;
    support::writeFile(descriptor(name), contents.replace(at, text.size(), replacement));
  }

  const SharedImageFiles files_ = SharedImageFiles::ofUser();

 private:
  void removeForgotten() const {
    if (forgotten_ > 0) {
      EXPECT_EQ(backingFiles().size(), forgotten_);
      for (const auto& file : backingFiles()) {
        fs::remove(file.path);
      }
    }
  }

  std::string folder_;
  std::size_t forgotten_ = 0;
};

// The text of the first message; empty if there is none.
std::string firstOf(LogCapture& log) {
  const auto lines = log.take();
  return lines.empty() ? std::string() : lines[0].text;
}

bool setPixel(const Image& image, std::uint32_t x, std::uint32_t y, std::uint8_t value) {
  return KvTileImage_SetPixelData(image.get(), x, y, &value, 1);
}

int pixel(const Image& image, std::uint32_t x, std::uint32_t y) {
  std::uint8_t value = 0;
  return KvTileImage_GetPixelData(image.get(), x, y, &value, 1) ? value : -1;
}

// ---- Creation and attachment

TEST_F(SharingTest, ShowsPixelsToAllHolders) {
  const Image maker = create("a", 1000, 5000);
  ASSERT_NE(maker, nullptr);
  const Image other = attach("a");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(pixel(other, 999, 4999), 0);
  ASSERT_TRUE(setPixel(maker, 3, 4, 7));
  ASSERT_TRUE(setPixel(other, 999, 4999, 8));
  EXPECT_EQ(pixel(other, 3, 4), 7);
  EXPECT_EQ(pixel(maker, 999, 4999), 8);
  ASSERT_TRUE(setPixel(maker, 3, 4, 9));
  EXPECT_EQ(pixel(other, 3, 4), 9);
}

TEST_F(SharingTest, HandsOnTheFormat) {
  const Image maker = create("a", 100, 77, 3, 16, KVTI_SAMPLEFORMAT_UNSET, KVTI_SCANLINE_OPERATION_COL);
  ASSERT_NE(maker, nullptr);
  KvTileImage_SetDpiX(maker.get(), 300);
  const Image other = attach("a");
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(KvTileImage_GetWidth(other.get()), 100U);
  EXPECT_EQ(KvTileImage_GetHeight(other.get()), 77U);
  EXPECT_EQ(KvTileImage_GetSamplesPerPixel(other.get()), 3U);
  EXPECT_EQ(KvTileImage_GetBitsPerSample(other.get()), 16U);
  EXPECT_EQ(KvTileImage_GetBitsPerPixel(other.get()), 48U);
  EXPECT_EQ(KvTileImage_GetSampleformat(other.get()), KVTI_SAMPLEFORMAT_UNSET);
  EXPECT_EQ(KvTileImage_GetDpiX(other.get()), 72.0F);
}

TEST_F(SharingTest, TellsTheFormatWithoutAttaching) {
  const Image maker = create("a", 100, 77, 3, 16, KVTI_SAMPLEFORMAT_INT);
  std::array<std::uint32_t, 5> info{};
  EXPECT_TRUE(KvTileImage_InterprocessB_GetInfo(id("a").c_str(), &info[0], &info[1], &info[2], &info[3], &info[4]));
  EXPECT_THAT(info, ElementsAre(100, 77, 3, 16, KVTI_SAMPLEFORMAT_INT));
  std::uint32_t bits = 0;
  EXPECT_TRUE(KvTileImage_InterprocessB_GetInfo(id("a").c_str(), nullptr, nullptr, nullptr, &bits, nullptr));
  EXPECT_EQ(bits, 16U);
  EXPECT_TRUE(KvTileImage_InterprocessB_GetInfo(id("a").c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(SharingTest, WritesADescriptorOfTheTiles) {
  // The tiles of a tall image for both directions are 256 x 4096 pixels: 8 x 4096 bytes in a column of 8, then 8 x 905.
  const Image maker = create("a", 8, 5001, 1, 8, KVTI_SAMPLEFORMAT_UINT, KVTI_SCANLINE_OPERATION_ROW);
  ASSERT_NE(maker, nullptr);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 1U);
  const std::uint64_t granularity = platform::allocationGranularity();
  std::ostringstream expected;
  expected << R"("width":8,"height":5001,"samplesPerPixel":1,"bitsPerSample":8,"sampleformat":1,"scanlineOperation":3,)"
           << R"("tileBaseWidth":4096,"tileBaseHeight":8192,"tileRowCount":1,"tileColCount":1,)";
  const std::string contents = support::contentsOf(descriptor("a"));
  EXPECT_THAT(contents, HasSubstr(expected.str()));
  std::ostringstream file;
  EXPECT_THAT(contents, HasSubstr(R"("blocksPerFile":1,"fileBriefInfoList":[[)"));
  file << ',' << (8 * 5001 + granularity - 1) / granularity * granularity << ',' << files[0].number << "]]";
  EXPECT_THAT(contents, HasSubstr(file.str()));
}

TEST_F(SharingTest, AttachesToAnImageOfTheSameFormatInsteadOfMakingOne) {
  const Image first = create("a", 100, 77);
  ASSERT_TRUE(setPixel(first, 5, 6, 7));
  const std::size_t files = backingFiles().size();
  LogCapture log(ember_logger::warning);
  const Image second = createLogged("a", 100, 77, 1, 8, KVTI_SAMPLEFORMAT_UINT, KVTI_SCANLINE_OPERATION_ROW);
  ASSERT_NE(second, nullptr);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_EQ(pixel(second, 5, 6), 7);
  EXPECT_EQ(backingFiles().size(), files);
}

TEST_F(SharingTest, MakesAnotherImageForAnotherFormat) {
  expectForgotten(5);  // of all but the first of each identifier
  const Image first = create("a", 100, 77);
  ASSERT_TRUE(setPixel(first, 5, 6, 7));
  LogCapture log(ember_logger::warning);
  const Image second = createLogged("a", 100, 78);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(log.take(),
            (support::LogLines{{3,
                                "[TileImage::createInterprocessA] interprocessTileImageId file is invalid [possible "
                                "reason: interprocessTileImageId(" +
                                    id("a") + ") is not unique]"}}));
  EXPECT_EQ(pixel(second, 5, 6), 0);
  EXPECT_EQ(pixel(first, 5, 6), 7);
  const Image third = attach("a");
  EXPECT_EQ(KvTileImage_GetHeight(third.get()), 78U);
  for (const auto& [width, height, samples, bits, format] : std::vector<std::array<std::uint32_t, 5>>{
           {101, 78, 1, 8, 1}, {100, 78, 2, 8, 1}, {100, 78, 1, 16, 1}, {100, 78, 1, 8, 2}}) {
    const Image other = createLogged("b", 100, 78, 1, 8, 1);
    log.take();
    const Image differing = createLogged("b", width, height, samples, bits, format);
    ASSERT_NE(differing, nullptr);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0].text, HasSubstr("is not unique"));
  }
}

TEST_F(SharingTest, SaysThatThereWasNoDescriptorBefore) {
  LogCapture log(ember_logger::info);
  const Image image = createLogged("a", 10, 10);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(log.take(), (support::LogLines{
                            {4, "[JsonHelper::read] jsonFilePath:" + shownDescriptor("a") + " open failed!"},
                            {4, "[TileImageInterprocessJsonHelper::unserialize] json read failed"},
                            {4, "[TileImage::getTileImageBriefInfo_InterprocessB] jsonHelper serialize failed"},
                        }));
}

TEST_F(SharingTest, TellsThatThereIsNothingToAttachTo) {
  LogCapture log(ember_logger::info);
  EXPECT_EQ(attach("a"), nullptr);
  EXPECT_EQ(log.take(), (support::LogLines{
                            {4, "[JsonHelper::read] jsonFilePath:" + shownDescriptor("a") + " open failed!"},
                            {4, "[TileImageInterprocessJsonHelper::unserialize] json read failed"},
                            {4, "[TileImage::postInitializeInterprocessB] jsonHelper serialize failed"},
                            {4, "[TileImage::createInterprocessB] create failed"},
                        }));
  EXPECT_FALSE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
  EXPECT_EQ(log.take().back().text, "[TileImage::isValid] files of FileMapping is missing");
  std::uint32_t width = 7;
  EXPECT_FALSE(KvTileImage_InterprocessB_GetInfo(id("a").c_str(), &width, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(log.take().back().text, "[TileImage::getTileImageBriefInfo_InterprocessB] jsonHelper serialize failed");
  EXPECT_EQ(width, 7U);
}

TEST_F(SharingTest, RefusesIdentifiersThatAreEmpty) {
  LogCapture log;
  for (const char* const identifier : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(KvTileImage_InterprocessA_Alloc(identifier, 10, 10, 1, 8, 1), nullptr);
    EXPECT_EQ(log.take(), errors({"[KvTileImage_InterprocessA_AllocEx] interprocessTileImageId is empty"}));
    EXPECT_EQ(KvTileImage_InterprocessA_AllocEx(identifier, 10, 10, 1, 8, 1, 3), nullptr);
    EXPECT_EQ(log.take(), errors({"[KvTileImage_InterprocessA_AllocEx] interprocessTileImageId is empty"}));
    EXPECT_EQ(KvTileImage_InterprocessB_Alloc(identifier), nullptr);
    EXPECT_EQ(log.take(), errors({"[KvTileImage_InterprocessB_Alloc] interprocessTileImageId is empty"}));
    EXPECT_FALSE(KvTileImage_Interprocess_IsValid(identifier));
    EXPECT_FALSE(KvTileImage_InterprocessB_GetInfo(identifier, nullptr, nullptr, nullptr, nullptr, nullptr));
    log.take();
  }
}

TEST_F(SharingTest, RefusesIdentifiersThatLeaveTheirFolder) {
  LogCapture log;
  for (const char* const identifier : {"..", "../a", "a/../../b", "/a", "\\a", "C:/a", "a\\..\\b"}) {
    EXPECT_EQ(KvTileImage_InterprocessA_Alloc(identifier, 10, 10, 1, 8, 1), nullptr);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 2U) << identifier;
    EXPECT_EQ(lines[0].text, std::string("[KvTileImage_InterprocessA_AllocEx] the identifier \"") + identifier +
                                 "\" counts as empty: it must not begin with a slash or a drive letter, nor have a "
                                 "\"..\" between slashes");
    EXPECT_EQ(lines[1].text, "[KvTileImage_InterprocessA_AllocEx] interprocessTileImageId is empty");
    EXPECT_EQ(KvTileImage_InterprocessB_Alloc(identifier), nullptr);
    EXPECT_FALSE(KvTileImage_Interprocess_IsValid(identifier));
    EXPECT_FALSE(KvTileImage_InterprocessB_GetInfo(identifier, nullptr, nullptr, nullptr, nullptr, nullptr));
    log.take();
  }
  EXPECT_EQ(KvTileImage_InterprocessB_Alloc("\xff"), nullptr);
  EXPECT_THAT(firstOf(log), HasSubstr("the identifier counts as empty: it is"));
}

TEST_F(SharingTest, TakesIdentifiersThatAreNoAscii) {
  const Image maker = create(
      "Gr\xc3\xbc\xc3\x9f"
      "e/\xc3\xa9",
      10, 10);
  ASSERT_NE(maker, nullptr);
  ASSERT_TRUE(setPixel(maker, 1, 2, 3));
  EXPECT_EQ(pixel(attach("Gr\xc3\xbc\xc3\x9f"
                         "e/\xc3\xa9"),
                  1, 2),
            3);
}

TEST_F(SharingTest, RefusesSizesOfNothing) {
  const LogLine tooSmall{4, "[TileImage::createInterprocessA] create failed"};
  LogCapture log;
  for (const auto& [width, height, samples, bits] :
       std::vector<std::array<std::uint32_t, 4>>{{0, 9, 1, 8}, {9, 0, 1, 8}, {9, 9, 0, 8}, {9, 9, 1, 0}}) {
    EXPECT_EQ(createLogged("a", width, height, samples, bits), nullptr);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 5U);
    std::ostringstream text;
    text << "[TileImage::check] invalid args.width:" << width << " height:" << height << " samplesPerPixel:" << samples
         << " bitsPerSample:" << bits << '!';
    EXPECT_EQ(lines[3], (LogLine{4, text.str()}));
    EXPECT_EQ(lines[4], tooSmall);
  }
}

// The product is taken in 32 bits: 65536 * 65536 * 8 bits are 8 * 2^32.
TEST_F(SharingTest, RefusesSizesWhoseProductIsAMultipleOf2To32) {
  LogCapture log;
  EXPECT_EQ(createLogged("a", 65536, 65536), nullptr);
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[3].text,
            "[TileImage::checkShared] the bits of a shared image must not be a multiple of 2^32: make it a row longer");
  EXPECT_EQ(lines[4].text,
            "[TileImage::check] invalid args.width:65536 height:65536 samplesPerPixel:1 bitsPerSample:8!");
}

TEST_F(SharingTest, RefusesOtherScanlineOperations) {
  LogCapture log;
  EXPECT_EQ(createLogged("a", 10, 10, 1, 8, 1, 4), nullptr);
  const auto lines = log.take();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[lines.size() - 3].text, "[TileManager::createInterprocessA] postInitialize failed");
  EXPECT_EQ(lines[lines.size() - 2].text, "[TileImage::postInitializeInterprocessA] create failed!");
  EXPECT_EQ(lines[lines.size() - 1].text, "[TileImage::createInterprocessA] create failed");
}

TEST_F(SharingTest, KeepsPackedPixelsAcrossTiles) {
  const Image maker = create("a", 70000, 9, 1, 1);  // wider than a tile of 32768 pixels
  ASSERT_NE(maker, nullptr);
  Bytes row(70000 / 8);
  for (std::size_t i = 0; i < row.size(); ++i) {
    row[i] = static_cast<std::uint8_t>(i * 37 + 11);
  }
  ASSERT_TRUE(KvTileImage_SetFullRowData(maker.get(), 8, row.data(), row.size()));
  Bytes read(row.size());
  ASSERT_TRUE(KvTileImage_GetFullRowData(attach("a").get(), 8, read.data(), read.size()));
  EXPECT_EQ(read, row);
}

// ---- Letting go

TEST_F(SharingTest, GoesWithTheLastHolder) {
  Image maker = create("a", 8, 5000);
  Image second = attach("a");
  Image third = attach("a");
  ASSERT_TRUE(setPixel(third, 1, 4999, 3));
  EXPECT_EQ(backingFiles().size(), 2U);
  maker.reset();
  EXPECT_EQ(backingFiles().size(), 2U);
  EXPECT_TRUE(fs::exists(descriptor("a")));
  EXPECT_EQ(pixel(second, 1, 4999), 3);
  third.reset();
  EXPECT_EQ(pixel(second, 1, 4999), 3);
  EXPECT_EQ(pixel(attach("a"), 1, 4999), 3);
  LogCapture log(ember_logger::info);
  second.reset();
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0].text, HasSubstr("has Ownership. lockFilePath remove success:1 ["));
  EXPECT_EQ(lines[1], (LogLine{2,
                               "[FileMappingStorageStrategy::~FileMappingStorageStrategy] has Ownership. "
                               "interprocessIdJsonFilePath remove success:1 [" +
                                   shownDescriptor("a") + "]"}));
  EXPECT_EQ(filesLeft(), 0);
}

TEST_F(SharingTest, IsValidWhileSomeoneHoldsIt) {
  Image maker = create("a", 8, 50);
  EXPECT_TRUE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
  EXPECT_TRUE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
  ASSERT_TRUE(setPixel(maker, 1, 1, 1));
  maker.reset();
  const LogCapture log;
  EXPECT_FALSE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
}

TEST_F(SharingTest, IsHeldByAnEngineThatReadsIt) {
  Image maker = create("a", 16, 16);
  RescaleEngineHandle* const engine =
      KvTileImage_BeginRescaleRowScanline_ThreadSafe(maker.get(), 0, 0, 16, 16, 8, 8, KVTI_FILTER_BOX);
  ASSERT_NE(engine, nullptr);
  maker.reset();
  EXPECT_TRUE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
  Bytes row(8);
  EXPECT_TRUE(KvTileImage_RescaleRowScanline_ThreadSafe(engine, 7, row.data(), row.size()));
  KvTileImage_EndRescaleRowScanline_ThreadSafe(engine);
  EXPECT_EQ(filesLeft(), 0);
}

TEST_F(SharingTest, IsRotatedIntoAnImageOfItsOwn) {
  Image maker = create("a", 16, 8);
  ASSERT_TRUE(setPixel(maker, 15, 7, 9));
  const Image turned(KvTileImage_Rotate(maker.get(), 180, nullptr));
  maker.reset();
  EXPECT_EQ(pixel(turned, 0, 0), 9);
}

// Without a lock file an image can be made all the same; its files go, and its descriptor stays.
TEST_F(SharingTest, WorksWhereTheLockFileCannotBeMade) {
  fs::create_directories(lockFile("x").parent_path());
  support::writeFile(lockFile("x").parent_path() / "sub", "");  // a file where the folder should be
  LogCapture log;
  Image image = createLogged("sub/a", 8, 50);
  ASSERT_NE(image, nullptr);
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[3].text, "[InterprocessReleaseResourceOwnership::postInitialize] dir create failed");
  EXPECT_EQ(lines[4].text, "[InterprocessReleaseResourceOwnership::create] postInitialize failed");
  EXPECT_EQ(lines[5].text,
            "[FileMappingStorageStrategy::postInitializeCommon] InterprocessReleaseResourceOwnership::create failed!");
  ASSERT_TRUE(setPixel(image, 1, 2, 3));
  EXPECT_EQ(pixel(image, 1, 2), 3);
  image.reset();
  EXPECT_THAT(backingFiles(), IsEmpty());
  EXPECT_TRUE(fs::exists(descriptor("sub/a")));
  fs::remove_all(descriptor("sub/a").parent_path());
  fs::remove(lockFile("x").parent_path() / "sub");
}

TEST_F(SharingTest, LeavesNothingIfTheDescriptorCannotBeWritten) {
  fs::create_directories(descriptor("x").parent_path());
  support::writeFile(descriptor("x").parent_path() / "sub", "");  // a file where the folder should be
  LogCapture log;
  EXPECT_EQ(createLogged("sub/a", 8, 50), nullptr);
  const auto lines = log.take();
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines[lines.size() - 2].text, "[TileImage::postInitializeInterprocessA] jsonHelper serialize failed");
  EXPECT_EQ(lines[lines.size() - 1].text, "[TileImage::createInterprocessA] create failed");
  fs::remove(descriptor("x").parent_path() / "sub");
  EXPECT_EQ(filesLeft(), 0);
}

// Who attaches without becoming a holder must not take the image from those who are.
TEST_F(SharingTest, IsNotRemovedByOneWhoCouldNotBecomeAHolder) {
  const Image maker = create("a", 8, 50);
  ASSERT_TRUE(setPixel(maker, 1, 2, 3));
  const std::string identifier = id("a");
  const LogCapture log;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 10000) << "no end to the allocations";
    support::failAllocation(n);
    Image other(KvTileImage_InterprocessB_Alloc(identifier.c_str()));
    const bool failed = support::allocationHasFailed();
    support::failAllocation(0);
    other.reset();
    ASSERT_EQ(backingFiles().size(), 1U) << n;
    ASSERT_TRUE(fs::exists(descriptor("a"))) << n;
    if (!failed) {
      break;
    }
  }
}

// What no descriptor tells of is nobody else's.
TEST_F(SharingTest, LeavesNothingIfTheDescriptorCannotBeWrittenBesideAHolder) {
  const Image maker = create("a", 8, 50);
  ASSERT_TRUE(setPixel(maker, 1, 2, 3));
  fs::rename(descriptor("a"), descriptor("aside"));
  fs::create_directories(descriptor("a") / "in the way");
  const LogCapture log;
  EXPECT_EQ(createLogged("a", 8, 60), nullptr);
  EXPECT_EQ(backingFiles().size(), 1U);
  fs::remove_all(descriptor("a"));
  fs::rename(descriptor("aside"), descriptor("a"));
  EXPECT_EQ(pixel(attach("a"), 1, 2), 3);
}

// Whether the path names nothing any more, or a moment later: a file that someone has just open may take that long to
// go.
bool vanishes(const fs::path& path) {
  for (int i = 0; i < 1000 && fs::exists(path); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return !fs::exists(path);
}

// Who waits for an image asks for it again and again.
TEST_F(SharingTest, IsMadeAndLetGoWhileSomeoneAsksForIt) {
  const LogCapture log;
  std::atomic<int> found{0};
  const std::string identifier = id("a");
  const std::jthread asking([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      std::uint32_t width = 0;
      if (KvTileImage_InterprocessB_GetInfo(identifier.c_str(), &width, nullptr, nullptr, nullptr, nullptr)) {
        found += width == 8 ? 1 : -1000000;
      }
    }
  });
  for (int round = 0; round < 100; ++round) {
    Image image = createLogged("a", 8, 50);
    ASSERT_NE(image, nullptr) << round;
    if (round == 50) {  // it is found at least once
      for (const int before = found; found == before;) {
        std::this_thread::yield();
      }
    }
    image.reset();
    ASSERT_TRUE(vanishes(descriptor("a"))) << round;
  }
  EXPECT_GT(found, 0);
}

// ---- Descriptors and files that are not what they should be

TEST_F(SharingTest, RefusesAFileThatIsMissing) {
  Image maker = create("a", 8, 5000);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 2U);
  edit("a", joined(',', files[1].number, ']'), ",18446744073709551615]");
  LogCapture log;
  EXPECT_EQ(attach("a"), nullptr);
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 6U);
  EXPECT_EQ(lines[0].text,
            "[FileMappingStorageStrategy::postInitializeInterprocessB] file is not existed, check your code");
  EXPECT_EQ(lines[1].text, "[FileMappingStorageStrategy::createInterprocessB] create failed");
  EXPECT_EQ(lines[2].text, "[TileManager::postInitializeInterprocessB] blockCenter_ create failed");
  EXPECT_EQ(lines[3].text, "[TileManager::createInterprocessB] postInitialize failed");
  EXPECT_EQ(lines[4].text, "[TileImage::postInitializeInterprocessB] create failed!");
  EXPECT_EQ(lines[5].text, "[TileImage::createInterprocessB] create failed");
  EXPECT_EQ(backingFiles().size(), 2U) << "the maker still holds them";
  EXPECT_FALSE(KvTileImage_Interprocess_IsValid(id("a").c_str()));
}

TEST_F(SharingTest, MakesAFreshImageWhereFilesAreMissing) {
  Image maker = create("a", 8, 5000);
  ASSERT_TRUE(setPixel(maker, 1, 1, 1));
  edit("a", "\"prefix\":\"process_", "\"prefix\":\"process_0");
  LogCapture log(ember_logger::warning);
  Image fresh = createLogged("a", 8, 5000);
  ASSERT_NE(fresh, nullptr);
  EXPECT_EQ(log.take().back(), (LogLine{3,
                                        "[TileImage::createInterprocessA] files of FileMapping is missing,will create "
                                        "a fresh tileImage"}));
  EXPECT_EQ(pixel(fresh, 1, 1), 0);
  EXPECT_EQ(pixel(attach("a"), 1, 1), 0);
  fresh.reset();
  EXPECT_EQ(backingFiles().size(), 4U);
  maker.reset();
  EXPECT_EQ(backingFiles().size(), 2U);
  expectForgotten(2);
}

TEST_F(SharingTest, RefusesFilesOfAnotherSize) {
  const std::uint64_t granularity = platform::allocationGranularity();
  const Image maker = create("a", 8, 50);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 1U);
  LogCapture log;
  edit("a", joined(',', granularity, ','), joined(',', granularity + 1, ','));
  EXPECT_EQ(attach("a"), nullptr);
  EXPECT_EQ(firstOf(log),
            "[FileMappingStorageStrategy::postInitializeInterprocessB] fileBytes is wrong, check your code");
  edit("a", joined(',', granularity + 1, ','), joined(',', granularity, ','));
  EXPECT_NE(attach("a"), nullptr);
#ifndef _WIN32  // where a mapped file cannot change its size
  for (const std::uint64_t bytes : {granularity - 1, granularity + 1, std::uint64_t{0}}) {
    fs::resize_file(files[0].path, bytes);
    EXPECT_EQ(attach("a"), nullptr);
    std::ostringstream text;
    text << " has " << bytes << " bytes instead of " << granularity;
    EXPECT_THAT(firstOf(log), HasSubstr(text.str()));
  }
  fs::resize_file(files[0].path, granularity);
  EXPECT_NE(attach("a"), nullptr);
#endif
}

#ifndef _WIN32
TEST_F(SharingTest, RefusesLinksAndPipesInPlaceOfFiles) {
  const Image maker = create("a", 8, 50);
  const fs::path file = backingFiles().at(0).path;
  const fs::path aside = file.parent_path() / "aside";
  fs::rename(file, aside);
  fs::create_symlink(aside, file);
  const LogCapture log;
  EXPECT_EQ(attach("a"), nullptr);
  fs::remove(file);
  ASSERT_EQ(std::system(("mkfifo '" + file.string() + "'").c_str()), 0);
  EXPECT_EQ(attach("a"), nullptr);
  fs::remove(file);
  fs::rename(aside, file);
  EXPECT_NE(attach("a"), nullptr);
}
#endif

TEST_F(SharingTest, TouchesNoFilesThatAreNoImages) {
  const support::ScratchFolder scratch;
  Bytes precious(platform::allocationGranularity(), 7);
  support::writeFile(scratch.path() / "letter0.txt", std::string(precious.begin(), precious.end()));
  const Image maker = create("a", 8, 50);
  const std::string contents = support::contentsOf(descriptor("a"));
  const auto describe = [&](const std::string& folder, const std::string& prefix, const std::string& suffix) {
    std::string text = contents.substr(0, contents.find("\"dirList\""));
    text += "\"dirList\":[\"" + folder + "\"],\"prefix\":\"" + prefix + "\",\"suffix\":\"" + suffix +
            "\",\"blocksPerFile\":1,\"fileBriefInfoList\":[[0," + std::to_string(platform::allocationGranularity()) +
            ",0]]}}}}";
    support::writeFile(descriptor("b"), text);
  };
  const std::string folder = platform::toUtf8(scratch.wide());
  LogCapture log;
  describe(folder, "letter", ".txt");
  EXPECT_EQ(attach("b"), nullptr);
  EXPECT_THAT(firstOf(log), HasSubstr("letter0.txt, which is no file of an image"));
  fs::copy_file(scratch.path() / "letter0.txt", scratch.path() / "letter0.korvaneFileMapping");
  describe(folder + "sub/", "../letter", ".korvaneFileMapping");
  fs::create_directory(scratch.path() / "sub");
  EXPECT_EQ(attach("b"), nullptr);
  EXPECT_THAT(firstOf(log), HasSubstr("which is no file of an image"));
  describe(folder, "letter", ".korvaneFileMapping/../letter0.txt");
  EXPECT_EQ(attach("b"), nullptr);
  EXPECT_TRUE(fs::exists(scratch.path() / "letter0.txt"));
  EXPECT_TRUE(fs::exists(scratch.path() / "letter0.korvaneFileMapping"));
}

// Several tiles in a file: not what images are made with, but what a descriptor can say.
TEST_F(SharingTest, ReadsSeveralTilesFromAFile) {
  const support::ScratchFolder scratch;
  // Five tiles of 8 x 8192 pixels, the last one 8 x 100, by twos in files: 65536 bytes each, whole units on both
  // systems.
  const std::uint64_t granularity = platform::allocationGranularity();
  const std::uint64_t lastBytes = (800 + granularity - 1) / granularity * granularity;
  const std::array<std::uint64_t, 3> sizes{131072, 131072, lastBytes};
  for (std::size_t file = 0; file < sizes.size(); ++file) {
    std::string bytes(sizes[file], '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      const std::size_t y = (file * 131072 + i) / 8;
      bytes[i] = static_cast<char>(y % 251 + i % 8);
    }
    support::writeFile(scratch.path() / joined("p", file * 10, ".korvaneFileMapping"), bytes);
  }
  fs::create_directories(descriptor("a").parent_path());
  support::writeFile(descriptor("a"),
                     "{\"desc\":{\"interprocessTileImageInfo\":{\"width\":8,\"height\":32868,\"samplesPerPixel\":1,"
                     "\"bitsPerSample\":8,\"sampleformat\":1,\"scanlineOperation\":3,\"tileBaseWidth\":64,"
                     "\"tileBaseHeight\":8192,\"tileRowCount\":5,\"tileColCount\":1,\"interprocessFileMappingInfo\":"
                     "{\"dirList\":[\"" +
                         platform::toUtf8(scratch.wide()) +
                         "\"],\"prefix\":\"p\",\"suffix\":\".korvaneFileMapping\",\"blocksPerFile\":2,"
                         "\"fileBriefInfoList\":[[0,131072,0],[0,131072,10],[0," +
                         std::to_string(lastBytes) + ",20]]}}}}");
  Image image = attach("a");
  ASSERT_NE(image, nullptr);
  Bytes column(32868);
  for (const std::uint32_t x : {0U, 7U}) {
    ASSERT_TRUE(KvTileImage_GetFullColData(image.get(), x, column.data(), column.size()));
    for (std::size_t y = 0; y < column.size(); ++y) {
      ASSERT_EQ(column[y], static_cast<std::uint8_t>(y % 251 + x)) << x << ' ' << y;
    }
  }
  ASSERT_TRUE(setPixel(image, 3, 8192, 255));  // the first row of the second tile in the first file
  image.reset();
  EXPECT_FALSE(fs::exists(scratch.path() / "p0.korvaneFileMapping")) << "its last holder removes an image";
  EXPECT_FALSE(fs::exists(scratch.path() / "p20.korvaneFileMapping"));
}

// The grid that a descriptor tells of.
struct Described {
  const char* name;
  const char* members;  // of the image
  const char* files;    // behind the folders
  const char* reason;   // what the first message tells
};

class HostileTest : public SharingTest, public testing::WithParamInterface<Described> {};

TEST_P(HostileTest, IsRefusedBeforeAnythingIsMadeOfIt) {
  const Image maker = create("a", 8, 50);
  ASSERT_NE(maker, nullptr);
  const std::string contents = support::contentsOf(descriptor("a"));
  const std::size_t folders = contents.find("\"dirList\"");
  const std::size_t blocks = contents.find("\"blocksPerFile\"");
  support::writeFile(descriptor("b"), std::string("{\"desc\":{\"interprocessTileImageInfo\":{") + GetParam().members +
                                          ",\"interprocessFileMappingInfo\":{" +
                                          contents.substr(folders, blocks - folders) + GetParam().files + "}}}}");
  LogCapture log;
  EXPECT_EQ(attach("b"), nullptr);
  const auto lines = log.take();
  ASSERT_GE(lines.size(), 2U);
  EXPECT_THAT(lines.front().text, HasSubstr(GetParam().reason));
  EXPECT_EQ(lines.back().text, "[TileImage::createInterprocessB] create failed");
  EXPECT_FALSE(KvTileImage_Interprocess_IsValid(id("b").c_str()));
  EXPECT_TRUE(fs::exists(backingFiles().at(0).path));
  fs::remove(descriptor("b"));
}

constexpr const char* kNoSizes = "[TileImage::check] invalid args.";
constexpr const char* kNoGrid = "are no grid of its image";
constexpr const char* kOneFile = "\"blocksPerFile\":1,\"fileBriefInfoList\":[[0,65536,0]]";

INSTANTIATE_TEST_SUITE_P(
    , HostileTest,
    testing::Values(
        Described{"NoSize", "\"tileBaseWidth\":256,\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":1",
                  kOneFile, kNoSizes},
        Described{"NoTiles", "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8", kOneFile, kNoGrid},
        Described{"TilesOfNoWidth",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":0,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":1",
                  kOneFile, kNoGrid},
        Described{"TilesOfPartsOfBytes",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":1,\"tileBaseWidth\":3,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":3",
                  kOneFile, kNoGrid},
        Described{"TooManyRowsOfTiles",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":2,\"tileColCount\":1",
                  kOneFile, kNoGrid},
        Described{"TooFewColumnsOfTiles",
                  "\"width\":800,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":3",
                  kOneFile, kNoGrid},
        Described{"HugeTiles",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":"
                  "6148914691236517208,\"tileBaseHeight\":9223372036854775808,\"tileRowCount\":1,\"tileColCount\":1",
                  kOneFile, kNoGrid},
        Described{"CountsLike2To63",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":9223372036854775808,\"tileColCount\":9223372036854775808",
                  kOneFile, kNoGrid},
        Described{"MoreTilesThanMemory",
                  "\"width\":4294967295,\"height\":4294967295,\"samplesPerPixel\":1,\"bitsPerSample\":8,"
                  "\"tileBaseWidth\":8,\"tileBaseHeight\":1,\"tileRowCount\":4294967295,\"tileColCount\":536870912",
                  "\"blocksPerFile\":18446744073709551615,\"fileBriefInfoList\":[[0,18446744073709551615,0]]", kNoGrid},
        Described{"MoreTilesThanAnyImage",
                  "\"width\":8,\"height\":8388608,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":8,"
                  "\"tileBaseHeight\":1,\"tileRowCount\":8388608,\"tileColCount\":1",
                  kOneFile, kNoGrid},
        Described{"SizesBeyond64Bits",
                  "\"width\":4294967295,\"height\":4294967295,\"samplesPerPixel\":4294967295,\"bitsPerSample\":"
                  "4294967295,\"tileBaseWidth\":4294967288,\"tileBaseHeight\":4294967295,\"tileRowCount\":1,"
                  "\"tileColCount\":2",
                  kOneFile, kNoGrid},
        Described{"NegativeNumbers",
                  "\"width\":-8,\"height\":-50,\"samplesPerPixel\":-1,\"bitsPerSample\":-8,\"tileBaseWidth\":-256,"
                  "\"tileBaseHeight\":-4096,\"tileRowCount\":-1,\"tileColCount\":-1",
                  "\"blocksPerFile\":-1,\"fileBriefInfoList\":[[-1,-1,-1]]", kNoSizes},
        Described{"NoTilesInAFile",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":1",
                  "\"blocksPerFile\":0,\"fileBriefInfoList\":[[0,65536,0]]", "says that a file holds 0 tiles"},
        Described{"NoFiles",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":1",
                  "\"blocksPerFile\":1,\"fileBriefInfoList\":[]", "fileIndex is out range,check your code!"},
        Described{"FoldersOutOfRange",
                  "\"width\":8,\"height\":50,\"samplesPerPixel\":1,\"bitsPerSample\":8,\"tileBaseWidth\":256,"
                  "\"tileBaseHeight\":4096,\"tileRowCount\":1,\"tileColCount\":1",
                  "\"blocksPerFile\":1,\"fileBriefInfoList\":[[18446744073709551615,65536,0]]",
                  "dirIndex_ is out range,check your code!"}),
    [](const auto& described) { return described.param.name; });

// ---- Turns

TEST_F(SharingTest, WaitsForItsTurn) {
  auto lock = std::make_unique<interprocess::SharingLock>();
  ASSERT_TRUE(lock->held());
  std::atomic<bool> made{false};
  std::thread thread([&] {
    const Image image = create("a", 8, 50);
    made = image != nullptr;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(made);
  EXPECT_FALSE(fs::exists(lockFile("a")));
  lock.reset();
  thread.join();
  EXPECT_TRUE(made);
}

// Also by the engine that kept it.
TEST_F(SharingTest, WaitsForItsTurnToBeLetGoOf) {
  Image image = create("a", 16, 16);
  Image source = create("b", 16, 16);
  RescaleEngineHandle* const engine =
      KvTileImage_BeginRescaleRowScanline_ThreadSafe(source.get(), 0, 0, 16, 16, 8, 8, KVTI_FILTER_BOX);
  ASSERT_NE(engine, nullptr);
  source.reset();
  const LogCapture threadsOfOthers;
  auto lock = std::make_unique<interprocess::SharingLock>();
  ASSERT_TRUE(lock->held());
  std::thread release([&] { image.reset(); });
  std::thread end([&] { KvTileImage_EndRescaleRowScanline_ThreadSafe(engine); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  for (const char* const name : {"a", "b"}) {
    EXPECT_TRUE(fs::exists(lockFile(name))) << name;
    EXPECT_TRUE(fs::exists(descriptor(name))) << name;
  }
  EXPECT_EQ(backingFiles().size(), 2U);
  lock.reset();
  release.join();
  end.join();
  EXPECT_EQ(filesLeft(), 0);
}

TEST_F(SharingTest, IsMadeAndLetGoByManyThreads) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 25;
  const LogCapture log;
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string name(1, static_cast<char>('a' + round % 2));
        const Image image(KvTileImage_InterprocessA_Alloc(id(name).c_str(), 64, 64, 1, 8, 1));
        const auto y = static_cast<std::uint32_t>(thread);
        const auto value = static_cast<std::uint8_t>(round + 1);
        wrong += image != nullptr && setPixel(image, 5, y, value) && pixel(image, 5, y) == value ? 0 : 1;
        KvTileImage_EndCurrentThreadIO(image.get());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(filesLeft(), 0);
}

// ---- Without memory

TEST_F(SharingTest, SurvivesEveryAllocationThatFails) {
  const LogCapture log;
  const std::string identifier = id("a");
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 10000) << "no end to the allocations";
    support::failAllocation(n);
    const Image image(KvTileImage_InterprocessA_Alloc(identifier.c_str(), 8, 5000, 1, 8, 1));
    const bool failed = support::allocationHasFailed();
    support::failAllocation(0);
    if (!failed) {
      ASSERT_NE(image, nullptr);
      break;
    }
  }
  EXPECT_EQ(filesLeft(), 0);
  const Image maker = create("a", 8, 5000);
  ASSERT_TRUE(setPixel(maker, 1, 1, 7));
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 10000) << "no end to the allocations";
    support::failAllocation(n);
    const Image image(KvTileImage_InterprocessB_Alloc(identifier.c_str()));
    const bool failed = support::allocationHasFailed();
    support::failAllocation(0);
    if (!failed) {
      ASSERT_NE(image, nullptr);
      break;
    }
  }
  EXPECT_EQ(pixel(attach("a"), 1, 1), 7);
}

}  // namespace
