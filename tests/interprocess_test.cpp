// The files by which processes share images: descriptors, lock files, and the removal of what dead processes leave. Two
// holders in this process are to the library what holders in two processes are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "interprocess/holders.h"
#include "interprocess/interprocess_release_resource_ownership.h"
#include "interprocess/interprocess_tile_image_info.h"
#include "interprocess/shared_image_files.h"
#include "interprocess/sharing_lock.h"
#include "interprocess/tile_image_interprocess_json_helper.h"
#include "interprocess/tile_image_interprocess_rubbish_cleaner.h"
#include "platform/lock_files.h"
#include "platform/paths.h"
#include "platform/utf8.h"
#include "platform/win_interprocess.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

namespace fs = std::filesystem;

using namespace interprocess;
using namespace std::chrono_literals;
using platform::FileLock;
using support::errors;
using support::LogCapture;
using support::LogLine;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Ownership = InterprocessReleaseResourceOwnership;

// The files of shared images in a folder of the test's own.
class InterprocessTest : public testing::Test {
 protected:
  void SetUp() override { fs::create_directories(scratch_.path() / "data"); }

  fs::path descriptor(const std::string& identifier) const {
    return scratch_.path() / "data/interprocessId/json" / (identifier + ".json");
  }

  fs::path lockFile(const std::string& identifier) const {
    return scratch_.path() / "data/interprocessId/lockfiles" / (identifier + ".lockfile");
  }

  static void leave(const fs::path& path, const std::string& text = {}) {
    fs::create_directories(path.parent_path());
    support::writeFile(path, text);
  }

  std::string narrow(const fs::path& path) const { return platform::narrowPath(path.generic_wstring()); }

  const support::ScratchFolder scratch_;
  const SharedImageFiles files_{scratch_.wide() + L"data/"};
};

// ---- Identifiers

TEST(IdentifierTest, StaysInItsFolderUnlessItLeadsOut) {
  for (const wchar_t* const identifier : {L"a", L"a/b", L"a/b/c", L"a..b", L"..a", L"a..", L"...", L"a/...", L".",
                                          L"a b", L"12:30", L"\u00e4", L"a\\b"}) {
    EXPECT_TRUE(staysInItsFolder(identifier)) << platform::shownUtf8(identifier);
  }
  for (const wchar_t* const identifier :
       {L"..", L"../a", L"a/..", L"a/../b", L"a/../../b", L"..\\a", L"a\\..", L"a\\../b", L"/a", L"/", L"\\a", L"\\\\a",
        L"//server/a", L"C:a", L"c:/a", L"Z:\\a", L"C:"}) {
    EXPECT_FALSE(staysInItsFolder(identifier)) << platform::shownUtf8(identifier);
  }
}

TEST_F(InterprocessTest, NamesFilesByTheIdentifierAsItStands) {
  EXPECT_EQ(files_.descriptor(L"a/b"), scratch_.wide() + L"data/interprocessId/json/a/b.json");
  EXPECT_EQ(files_.lockFile(L"a/b"), scratch_.wide() + L"data/interprocessId/lockfiles/a/b.lockfile");
  EXPECT_EQ(files_.cleanersLockFile(), scratch_.wide() + L"data/KvTileImage_InterprocessRubbishCleaner.filelock");
  EXPECT_EQ(files_.sharingLockFile(), scratch_.wide() + L"data/KvTileImage_Interprocess.filelock");
}

TEST_F(InterprocessTest, FindsIdentifiersInSubFolders) {
  leave(lockFile("a"));
  leave(lockFile("b/c/d"));
  leave(lockFile("b/c") / "not.lockfile.txt");
  fs::create_directories(lockFile("folder"));
  leave(descriptor("e/f"));
  EXPECT_THAT(files_.identifiersWithLockFile(), UnorderedElementsAre(L"a", L"b/c/d"));
  EXPECT_THAT(files_.identifiersWithDescriptor(), UnorderedElementsAre(L"e/f"));
}

// ---- Records

TEST(TileImageInfoTest, IsEmptyAtFirst) {
  const InterprocessTileImageInfo info;
  EXPECT_EQ(info.width, 0U);
  EXPECT_EQ(info.height, 0U);
  EXPECT_EQ(info.samplesPerPixel, 0U);
  EXPECT_EQ(info.bitsPerSample, 0U);
  EXPECT_EQ(info.sampleformat, -1);
  EXPECT_EQ(info.scanlineOperation, 3);
  EXPECT_EQ(info.tileBaseWidth, 0U);
  EXPECT_EQ(info.tileBaseHeight, 0U);
  EXPECT_EQ(info.tileRowCount, 0U);
  EXPECT_EQ(info.tileColCount, 0U);
  ASSERT_NE(info.interprocessFileMappingInfo, nullptr);
  EXPECT_THAT(info.interprocessFileMappingInfo->dirList, IsEmpty());
  EXPECT_EQ(info.interprocessFileMappingInfo->blocksPerFile, 0U);
  EXPECT_NE(info.interprocessFileMappingInfo, InterprocessTileImageInfo().interprocessFileMappingInfo);
}

TEST(FileMappingInfoTest, TellsPathAndSizeOfEachFile) {
  InterprocessFileMappingInfo info;
  info.dirList = {L"/x/", L"/y"};
  info.prefix = L"process_7_";
  info.suffix = L".korvaneFileMapping";
  info.addFile(1, 65536, 3);
  info.addFile(0, 131072, 18446744073709551615U);
  EXPECT_EQ(info.getFileDetaiInfo(0),
            std::pair(std::wstring(L"/y/process_7_3.korvaneFileMapping"), std::uint64_t{65536}));
  EXPECT_EQ(info.getFileDetaiInfo(1),
            std::pair(std::wstring(L"/x/process_7_18446744073709551615.korvaneFileMapping"), std::uint64_t{131072}));
}

TEST(FileMappingInfoTest, RefusesWhatIsOutOfRange) {
  InterprocessFileMappingInfo info;
  info.dirList = {L"/x/"};
  LogCapture log;
  info.addFile(1, 65536, 3);
  EXPECT_THAT(info.fileBriefInfoList, IsEmpty());
  EXPECT_EQ(log.take(), errors({"[InterprocessFileMappingInfo::addFile] dirIndex is out range,check your code!"}));
  EXPECT_FALSE(info.getFileDetaiInfo(0));
  EXPECT_EQ(log.take(),
            errors({"[InterprocessFileMappingInfo::getFileDetaiInfo] fileIndex is out range,check your code!"}));
  info.addFile(0, 65536, 3);
  info.dirList.clear();
  EXPECT_FALSE(info.getFileDetaiInfo(0));
  EXPECT_EQ(log.take(),
            errors({"[InterprocessFileMappingInfo::getFileDetaiInfo] dirIndex_ is out range,check your code!"}));
}

// ---- The descriptor

InterprocessTileImageInfo exampleInfo() {
  InterprocessTileImageInfo info;
  info.width = 20000;
  info.height = 15000;
  info.samplesPerPixel = 4;
  info.bitsPerSample = 8;
  info.sampleformat = -1;
  info.scanlineOperation = 3;
  info.tileBaseWidth = 3072;
  info.tileBaseHeight = 4294967296;
  info.tileRowCount = 15;
  info.tileColCount = 20;
  auto& files = *info.interprocessFileMappingInfo;
  files.dirList = {L"D:/caches/", L"/\u00fc \"x\"/"};
  files.prefix = L"process_4242_";
  files.suffix = L".korvaneFileMapping";
  files.blocksPerFile = 1;
  files.fileBriefInfoList = {{0, 4194304, 0}, {1, 9223372036854775808U, 1}};
  return info;
}

TEST_F(InterprocessTest, WritesADescriptorAsTheseBytes) {
  const TileImageInterprocessJsonHelper helper(L"scans/one", files_);
  EXPECT_EQ(helper.interprocessIdJsonFilePath(), files_.descriptor(L"scans/one"));
  ASSERT_TRUE(helper.serialize(exampleInfo()));
  EXPECT_EQ(support::contentsOf(descriptor("scans/one")),
            "{\"meta\":{\"mainVersion\":1,\"subVersion\":0,\"type\":\"InterprocessTileImageInfo\"},"
            "\"desc\":{\"interprocessTileImageInfo\":{"
            "\"width\":20000,\"height\":15000,\"samplesPerPixel\":4,\"bitsPerSample\":8,"
            "\"sampleformat\":-1,\"scanlineOperation\":3,"
            "\"tileBaseWidth\":3072,\"tileBaseHeight\":4294967296,\"tileRowCount\":15,\"tileColCount\":20,"
            "\"interprocessFileMappingInfo\":{"
            "\"dirList\":[\"D:/caches/\",\"/\xc3\xbc \\\"x\\\"/\"],"
            "\"prefix\":\"process_4242_\",\"suffix\":\".korvaneFileMapping\",\"blocksPerFile\":1,"
            "\"fileBriefInfoList\":[[0,4194304,0],[1,9223372036854775808,1]]}}}}");
  EXPECT_THAT(support::namesIn(descriptor("scans/one").parent_path()), ElementsAre("one.json")) << "and nothing beside";
}

TEST_F(InterprocessTest, ReplacesADescriptorWhole) {
  leave(descriptor("a"), std::string(10000, ' '));
  ASSERT_TRUE(TileImageInterprocessJsonHelper(L"a", files_).serialize(InterprocessTileImageInfo()));
  EXPECT_EQ(support::contentsOf(descriptor("a")),
            "{\"meta\":{\"mainVersion\":1,\"subVersion\":0,\"type\":\"InterprocessTileImageInfo\"},"
            "\"desc\":{\"interprocessTileImageInfo\":{"
            "\"width\":0,\"height\":0,\"samplesPerPixel\":0,\"bitsPerSample\":0,"
            "\"sampleformat\":-1,\"scanlineOperation\":3,"
            "\"tileBaseWidth\":0,\"tileBaseHeight\":0,\"tileRowCount\":0,\"tileColCount\":0,"
            "\"interprocessFileMappingInfo\":{"
            "\"dirList\":[],\"prefix\":\"\",\"suffix\":\"\",\"blocksPerFile\":0,\"fileBriefInfoList\":[]}}}}");
}

TEST_F(InterprocessTest, WritesNoDescriptorWithoutFiles) {
  leave(descriptor("a"), "as it was");
  InterprocessTileImageInfo info;
  info.interprocessFileMappingInfo = nullptr;
  LogCapture log;
  EXPECT_FALSE(TileImageInterprocessJsonHelper(L"a", files_).serialize(info));
  EXPECT_EQ(log.take(), errors({"[TileImageInterprocessJsonHelper::serialize] serialize InterprocessFileMappingInfo "
                                "failed"}));
  EXPECT_EQ(support::contentsOf(descriptor("a")), "as it was");
}

TEST_F(InterprocessTest, SaysThatADescriptorCannotBeWritten) {
  leave(descriptor("a").parent_path());  // a file where the folder should be
  LogCapture log;
  EXPECT_FALSE(TileImageInterprocessJsonHelper(L"a", files_).serialize(exampleInfo()));
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0].text, HasSubstr("[JsonHelper::write] dir create failed [jsonFilePath:"));
  EXPECT_EQ(lines[1], errors({"[TileImageInterprocessJsonHelper::serialize] json write failed"})[0]);
}

class ReadDescriptorTest : public InterprocessTest {
 protected:
  bool read(const std::string& text, bool briefOnly = false) {
    leave(descriptor("a"), text);
    info_ = InterprocessTileImageInfo();
    return TileImageInterprocessJsonHelper(L"a", files_).unserialize(info_, briefOnly);
  }

  // A descriptor with these members of the image beside its files.
  static std::string withImage(const std::string& members) {
    return "{\"desc\":{\"interprocessTileImageInfo\":{" + members +
           ",\"interprocessFileMappingInfo\":{\"dirList\":[],\"fileBriefInfoList\":[]}}}}";
  }

  // One with these members of the files.
  static std::string withFiles(const std::string& members) {
    return "{\"desc\":{\"interprocessTileImageInfo\":{\"width\":5,\"interprocessFileMappingInfo\":{" + members + "}}}}";
  }

  const InterprocessFileMappingInfo& files() const { return *info_.interprocessFileMappingInfo; }

  InterprocessTileImageInfo info_;
};

TEST_F(ReadDescriptorTest, GivesBackWhatWasWritten) {
  const InterprocessTileImageInfo written = exampleInfo();
  ASSERT_TRUE(TileImageInterprocessJsonHelper(L"a", files_).serialize(written));
  ASSERT_TRUE(TileImageInterprocessJsonHelper(L"a", files_).unserialize(info_, false));
  EXPECT_EQ(info_.width, 20000U);
  EXPECT_EQ(info_.height, 15000U);
  EXPECT_EQ(info_.samplesPerPixel, 4U);
  EXPECT_EQ(info_.bitsPerSample, 8U);
  EXPECT_EQ(info_.sampleformat, -1);
  EXPECT_EQ(info_.scanlineOperation, 3);
  EXPECT_EQ(info_.tileBaseWidth, 3072U);
  EXPECT_EQ(info_.tileBaseHeight, 4294967296U);
  EXPECT_EQ(info_.tileRowCount, 15U);
  EXPECT_EQ(info_.tileColCount, 20U);
  EXPECT_THAT(files().dirList, ElementsAre(L"D:/caches/", L"/\u00fc \"x\"/"));
  EXPECT_EQ(files().prefix, L"process_4242_");
  EXPECT_EQ(files().suffix, L".korvaneFileMapping");
  EXPECT_EQ(files().blocksPerFile, 1U);
  ASSERT_EQ(files().fileBriefInfoList.size(), 2U);
  EXPECT_EQ(files().fileBriefInfoList[1].dirIndex, 1U);
  EXPECT_EQ(files().fileBriefInfoList[1].fileBytes, 9223372036854775808U);
  EXPECT_EQ(files().fileBriefInfoList[1].fileNumber, 1U);
}

TEST_F(ReadDescriptorTest, TakesMissingMembersForZero) {
  ASSERT_TRUE(read(withImage("\"height\":7,\"tileColCount\":18446744073709551615")));
  EXPECT_EQ(info_.width, 0U);
  EXPECT_EQ(info_.height, 7U);
  EXPECT_EQ(info_.sampleformat, 0);
  EXPECT_EQ(info_.scanlineOperation, 0);
  EXPECT_EQ(info_.tileColCount, 18446744073709551615U);
  EXPECT_EQ(files().blocksPerFile, 0U);
  EXPECT_EQ(files().prefix, L"");
}

TEST_F(ReadDescriptorTest, TakesNumbersOfTheWrongKindForZero) {
  for (const char* const value : {"-1", "1.5", "1e300", "\"7\"", "null", "true", "[7]", "{\"a\":7}", "4294967296",
                                  "-9223372036854775808", "18446744073709551615"}) {
    std::ostringstream members;
    members << "\"width\":" << value << ",\"bitsPerSample\":" << value;
    ASSERT_TRUE(read(withImage(members.str()))) << value;
    EXPECT_EQ(info_.width, 0U) << value;
    EXPECT_EQ(info_.bitsPerSample, 0U) << value;
  }
  for (const char* const value : {"-1", "1.5", "18446744073709551616", "\"7\"", "null", "false", "[]", "{}"}) {
    ASSERT_TRUE(read(withImage(std::string("\"tileBaseWidth\":") + value))) << value;
    EXPECT_EQ(info_.tileBaseWidth, 0U) << value;
    ASSERT_TRUE(read(withFiles(std::string("\"dirList\":[],\"fileBriefInfoList\":[],\"blocksPerFile\":") + value)));
    EXPECT_EQ(files().blocksPerFile, 0U) << value;
  }
  for (const char* const value : {"2147483648", "-2147483649", "1.0", "\"1\"", "null"}) {
    ASSERT_TRUE(read(withImage(std::string("\"sampleformat\":") + value))) << value;
    EXPECT_EQ(info_.sampleformat, 0) << value;
  }
  ASSERT_TRUE(read(withImage("\"sampleformat\":-2147483648,\"width\":4294967295")));
  EXPECT_EQ(info_.sampleformat, -2147483647 - 1);
  EXPECT_EQ(info_.width, 4294967295U);
}

TEST_F(ReadDescriptorTest, TakesAnyVersionAndNone) {
  const std::string desc =
      "\"desc\":{\"interprocessTileImageInfo\":{\"width\":5,\"interprocessFileMappingInfo\":"
      "{\"dirList\":[],\"fileBriefInfoList\":[]}}}";
  LogCapture log;
  EXPECT_TRUE(read("{" + desc + "}"));
  EXPECT_TRUE(read("{\"meta\":{\"mainVersion\":99,\"subVersion\":\"x\",\"type\":7}," + desc + "}"));
  EXPECT_TRUE(read("{\"meta\":[1,2]," + desc + "}"));
  EXPECT_EQ(info_.width, 5U);
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ReadDescriptorTest, RefusesOneWithoutDescInSilence) {
  LogCapture log;
  EXPECT_FALSE(read("{\"meta\":{}}"));
  EXPECT_FALSE(read("{}"));
  EXPECT_FALSE(read("[]"));
  EXPECT_FALSE(read("7"));
  EXPECT_FALSE(read("null"));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ReadDescriptorTest, TakesADescOfAnyOtherKindForEmpty) {
  for (const char* const desc : {"7", "[]", "{}", "\"x\"", "{\"interprocessTileImageInfo\":[1,2]}"}) {
    const std::string text = std::string("{\"desc\":") + desc + "}";
    EXPECT_TRUE(read(text, true)) << desc;
    EXPECT_EQ(info_.width, 0U);
    EXPECT_FALSE(read(text, false)) << desc;
  }
}

TEST_F(ReadDescriptorTest, WantsListsOfFoldersAndFiles) {
  LogCapture log;
  for (const char* const members :
       {"\"dirList\":[]", "\"fileBriefInfoList\":[]", "\"dirList\":{},\"fileBriefInfoList\":[]",
        "\"dirList\":[],\"fileBriefInfoList\":7", "\"dirList\":\"/x/\",\"fileBriefInfoList\":[]"}) {
    EXPECT_FALSE(read(withFiles(members))) << members;
    EXPECT_EQ(log.take(), errors({"[TileImageInterprocessJsonHelper::unserialize] unserialize "
                                  "InterprocessFileMappingInfo failed"}))
        << members;
    EXPECT_TRUE(read(withFiles(members), true)) << members;
    EXPECT_EQ(info_.width, 5U);
  }
  EXPECT_TRUE(read(withFiles("\"dirList\":[],\"fileBriefInfoList\":[]")));
  EXPECT_TRUE(read("{\"desc\":{\"interprocessTileImageInfo\":{\"width\":5}}}", true));
  EXPECT_FALSE(read("{\"desc\":{\"interprocessTileImageInfo\":{\"width\":5}}}", false));
}

TEST_F(ReadDescriptorTest, WantsThreeNumbersForEachFile) {
  for (const char* const file : {"[]", "[0]", "[0,1]", "[0,1,\"2\"]", "[null,1,2]", "7", "{}", "[[0,1,2]]"}) {
    EXPECT_FALSE(read(withFiles("\"dirList\":[],\"fileBriefInfoList\":[[0,1,2]," + std::string(file) + "]"))) << file;
  }
  ASSERT_TRUE(read(withFiles("\"dirList\":[\"x\",7],\"fileBriefInfoList\":[[1,2,3,4],[-1,1.5,18446744073709551615]]")));
  EXPECT_THAT(files().dirList, ElementsAre(L"x", L""));
  ASSERT_EQ(files().fileBriefInfoList.size(), 2U);
  EXPECT_EQ(files().fileBriefInfoList[0].fileNumber, 3U);
  EXPECT_EQ(files().fileBriefInfoList[1].dirIndex, 0U);
  EXPECT_EQ(files().fileBriefInfoList[1].fileBytes, 0U);
  EXPECT_EQ(files().fileBriefInfoList[1].fileNumber, 18446744073709551615U);
}

TEST_F(ReadDescriptorTest, RefusesTextThatIsNotUtf8) {
  LogCapture log;
  EXPECT_FALSE(read(withFiles("\"dirList\":[\"\xff\xfe\"],\"fileBriefInfoList\":[]")));
  EXPECT_EQ(log.take(), errors({"[TileImageInterprocessJsonHelper::unserialize] unserialize "
                                "InterprocessFileMappingInfo failed"}));
}

TEST_F(ReadDescriptorTest, SaysWhyThereIsNothingToRead) {
  LogCapture log;
  EXPECT_FALSE(TileImageInterprocessJsonHelper(L"none", files_).unserialize(info_, false));
  const std::string path = platform::toUtf8(files_.descriptor(L"none"));
  EXPECT_EQ(log.take(), (support::LogLines{
                            {4, "[JsonHelper::read] jsonFilePath:" + path + " open failed!"},
                            {4, "[TileImageInterprocessJsonHelper::unserialize] json read failed"},
                        }));
}

TEST_F(ReadDescriptorTest, RefusesEveryTruncation) {
  ASSERT_TRUE(TileImageInterprocessJsonHelper(L"a", files_).serialize(exampleInfo()));
  const std::string whole = support::contentsOf(descriptor("a"));
  const LogCapture log;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    ASSERT_FALSE(read(whole.substr(0, length))) << length;
  }
}

TEST_F(ReadDescriptorTest, SurvivesDeepNesting) {
  const LogCapture log;
  constexpr std::size_t kDepth = 4'000'000;
  EXPECT_FALSE(read(std::string(kDepth, '[')));
  EXPECT_FALSE(read(std::string(kDepth, '[') + std::string(kDepth, ']')));
  EXPECT_FALSE(read("{\"desc\":" + std::string(kDepth, '[') + std::string(kDepth, ']') + "}"));
  EXPECT_TRUE(read("{\"desc\":" + std::string(kDepth, '[') + std::string(kDepth, ']') + "}", true));
}

TEST_F(ReadDescriptorTest, ReadsNoMoreThanAnyDescriptorHas) {
  leave(descriptor("a"));
  support::makeSparseFile(descriptor("a"), std::uint64_t{1} << 40);
  LogCapture log;
  EXPECT_FALSE(TileImageInterprocessJsonHelper(L"a", files_).unserialize(info_, false));
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_THAT(lines[0].text, HasSubstr("is larger than 16777216 bytes and no file of this library"));
  EXPECT_THAT(lines[1].text, HasSubstr("parse failed!"));
}

// ---- Lock files

class OwnershipTest : public InterprocessTest {
 protected:
  struct Holder {
    std::shared_ptr<bool> hasOwnership = std::make_shared<bool>(false);
    std::shared_ptr<Ownership> ownership;

    explicit operator bool() const { return ownership != nullptr; }

    bool letGo() {
      ownership.reset();
      return *hasOwnership;
    }
  };

  Holder hold(const fs::path& path) const {
    Holder holder;
    holder.ownership = Ownership::create(narrow(path), holder.hasOwnership);
    return holder;
  }

  const fs::path path_ = lockFile("x");
};

TEST_F(OwnershipTest, GoesToASingleHolder) {
  Holder holder = hold(path_);
  ASSERT_TRUE(holder);
  EXPECT_EQ(fs::file_size(path_), 0U);
  LogCapture log(ember_logger::trace);
  EXPECT_TRUE(holder.letGo());
  EXPECT_FALSE(fs::exists(path_));
  EXPECT_EQ(log.take(),
            (support::LogLines{{2,
                                "[InterprocessReleaseResourceOwnership::~InterprocessReleaseResourceOwnership] has "
                                "Ownership. lockFilePath remove success:1 [" +
                                    narrow(path_) + "]"}}));
}

TEST_F(OwnershipTest, GoesToTheLastOfSeveral) {
  Holder first = hold(path_);
  Holder second = hold(path_);
  Holder third = hold(path_);
  ASSERT_TRUE(first && second && third);
  EXPECT_FALSE(second.letGo());
  EXPECT_FALSE(first.letGo());
  EXPECT_TRUE(fs::exists(path_));
  EXPECT_TRUE(third.letGo());
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(OwnershipTest, IsSettledForEachFileByItself) {
  Holder one = hold(lockFile("one"));
  Holder other = hold(lockFile("a/b/other"));
  ASSERT_TRUE(one && other);
  EXPECT_TRUE(other.letGo());
  EXPECT_TRUE(one.letGo());
}

TEST_F(OwnershipTest, KeepsOthersFromRemovingTheFile) {
  Holder holder = hold(path_);
  EXPECT_FALSE(
      platform::removeUnlessInUse(files_.lockFile(L"x"), [] { FAIL() << "companions go with the file only"; }));
  EXPECT_TRUE(fs::exists(path_));
  EXPECT_TRUE(holder.letGo());
}

TEST_F(OwnershipTest, IsRefusedWithoutAPath) {
  LogCapture log;
  EXPECT_EQ(Ownership::create("", std::make_shared<bool>()), nullptr);
  EXPECT_EQ(log.take(), errors({"[InterprocessReleaseResourceOwnership::create] postInitialize failed"}));
}

TEST_F(OwnershipTest, IsRefusedWhereTheFolderCannotBeMade) {
  leave(path_.parent_path());  // a file of that name
  LogCapture log;
  EXPECT_FALSE(hold(path_));
  EXPECT_EQ(log.take(), errors({"[InterprocessReleaseResourceOwnership::postInitialize] dir create failed",
                                "[InterprocessReleaseResourceOwnership::create] postInitialize failed"}));
}

TEST_F(OwnershipTest, IsRefusedWhereTheFileCannotBeOpened) {
  fs::create_directories(path_);
  LogCapture log;
  EXPECT_FALSE(hold(path_));
  EXPECT_EQ(log.take(),
            (support::LogLines{
                {4, "[InterprocessReleaseResourceOwnership::postInitialize] file:" + narrow(path_) + " open failed"},
                {4, "[InterprocessReleaseResourceOwnership::create] postInitialize failed"},
            }));
}

TEST_F(OwnershipTest, WaitsForWhoeverLocksTheFileForItself) {
  leave(path_);
  FileLock lock(narrow(path_), FileLock::IfMissing::fail);
  ASSERT_TRUE(lock.tryExclusive());
  std::atomic<bool> held{false};
  Holder holder;
  std::thread thread([&] {
    holder = hold(path_);
    held = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(held);
  lock.unlock();
  thread.join();
  EXPECT_TRUE(holder);
  EXPECT_FALSE(lock.tryExclusive());
  EXPECT_TRUE(holder.letGo());
}

#ifdef _WIN32
constexpr std::chrono::microseconds kBetweenLooks{3000};  // under Wine a look takes its time
#else
constexpr std::chrono::microseconds kBetweenLooks{20};
#endif

// A clean-up looks at the lock again and again while holders come and go: it is no holder.
TEST_F(OwnershipTest, IsNotLostToACleanUpThatLooks) {
  std::atomic<bool> done{false};
  std::atomic<int> looked{0};
  std::thread cleanUp([&] {
    while (!done) {
      try {
        FileLock lock(narrow(path_), FileLock::IfMissing::fail);
        for (int i = 0; i < 100 && lock.isNamed(narrow(path_)) && !done; ++i) {
          if (lock.tryExclusive()) {
            ++looked;
            lock.unlock();
          }
          std::this_thread::sleep_for(kBetweenLooks);
        }
      } catch (const win_interprocess::interprocess_exception&) {  // the file is gone
      }
    }
  });
  constexpr int kHolders = 200;
  int owned = 0;
  for (int i = 0; i < kHolders; ++i) {
    Holder holder = hold(path_);
    ASSERT_TRUE(holder);
    owned += holder.letGo() ? 1 : 0;
  }
  done = true;
  cleanUp.join();
  EXPECT_EQ(owned, kHolders);
  RecordProperty("looked", looked);
}

#ifndef _WIN32
TEST_F(OwnershipTest, IsLostWithTheFile) {
  Holder holder = hold(path_);
  fs::remove(path_);
  LogCapture log(ember_logger::trace);
  EXPECT_FALSE(holder.letGo());
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(OwnershipTest, LeavesAFileThatHasTakenThePlaceOfItsOwn) {
  Holder holder = hold(path_);
  fs::remove(path_);
  Holder next = hold(path_);
  EXPECT_FALSE(holder.letGo());
  EXPECT_TRUE(fs::exists(path_));
  EXPECT_TRUE(next.letGo());
}

// Whether a thread of this process waits for a lock is seen from the files that it has opened.
int timesOpen(const fs::path& path) {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closed;
    count += fs::read_symlink(entry.path(), closed) == path ? 1 : 0;
  }
  return count;
}

TEST_F(OwnershipTest, StartsOverIfTheFileIsRemovedBetweenItsOpeningAndItsLocking) {
  leave(path_);
  auto remover = std::make_unique<FileLock>(narrow(path_), FileLock::IfMissing::fail);
  ASSERT_TRUE(remover->tryExclusive());
  const int before = timesOpen(path_);
  Holder holder;
  std::thread thread([&] { holder = hold(path_); });
  while (timesOpen(path_) < before + 2) {  // the stream that keeps it open and the lock
    std::this_thread::sleep_for(1ms);
  }
  fs::remove(path_);
  remover.reset();
  thread.join();
  ASSERT_TRUE(holder);
  EXPECT_TRUE(fs::exists(path_));
  FileLock probe(narrow(path_), FileLock::IfMissing::fail);
  EXPECT_FALSE(probe.tryExclusive()) << "the file that has the name now is the one that is held";
  EXPECT_TRUE(holder.letGo());
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(OwnershipTest, StaysWithTheParentOfAForkedProcess) {
  Holder holder = hold(path_);
  const pid_t child = fork();
  if (child == 0) {
    _exit(holder.letGo() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(fs::exists(path_));
  FileLock probe(narrow(path_), FileLock::IfMissing::fail);
  EXPECT_FALSE(probe.tryExclusive());
  EXPECT_TRUE(holder.letGo());
}

TEST_F(OwnershipTest, IsNotKeptUpByAForkedProcess) {
  Holder holder = hold(path_);
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  EXPECT_TRUE(holder.letGo());
  Holder next = hold(path_);
  EXPECT_TRUE(next);
  EXPECT_TRUE(next.letGo());
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(SharingLockTest, IsNotKeptUpByAForkedProcess) {
  auto lock = std::make_unique<interprocess::SharingLock>();
  ASSERT_TRUE(lock->held());
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  lock.reset();
  const std::wstring path = SharedImageFiles::ofUser().sharingLockFile();
  FileLock next(platform::narrowPath(path), FileLock::IfMissing::fail);
  EXPECT_TRUE(next.waitExclusive(10s));  // processes of other tests may have it for a moment
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST_F(OwnershipTest, RefusesAPipe) {
  fs::create_directories(path_.parent_path());
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  const LogCapture log;
  EXPECT_FALSE(hold(path_));
}
#endif

// ---- What dead processes leave

class RubbishTest : public OwnershipTest {
 protected:
  static LogLine line(const std::string& text) {
    return {0, "[TileImageInterprocessRubbishCleaner::clearRubbish] " + text};
  }

  // Identifiers for whose files nobody cares, and one that is held.
  void SetUp() override {
    OwnershipTest::SetUp();
    for (const char* const identifier : {"dead", "sub/dead", "held"}) {
      leave(lockFile(identifier));
      leave(descriptor(identifier), "{}");
    }
  }

  std::string shown(const wchar_t* identifier) const { return platform::toUtf8(files_.descriptor(identifier)); }
};

TEST_F(RubbishTest, IsWhatNobodyHolds) {
  Holder holder = hold(lockFile("held"));
  leave(descriptor("without lock file"), "{}");
  TileImageInterprocessRubbishCleaner cleaner(files_);
  LogCapture log(ember_logger::trace);
  cleaner.clearRubbish();
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_EQ(lines[0], line("clear rubbish"));
  EXPECT_EQ(lines[1], line("need to clear cache!"));
  EXPECT_THAT(
      (support::LogLines{lines[2], lines[3], lines[4]}),
      UnorderedElementsAre(line("InterprocessIdJsonFilePath:" + shown(L"dead") + " is not used, remove it!"),
                           line("InterprocessIdJsonFilePath:" + shown(L"sub/dead") + " is not used, remove it!"),
                           line("InterprocessIdJsonFilePath:" + shown(L"held") + " is being used!")));
  EXPECT_FALSE(fs::exists(lockFile("dead")));
  EXPECT_FALSE(fs::exists(descriptor("dead")));
  EXPECT_FALSE(fs::exists(lockFile("sub/dead")));
  EXPECT_FALSE(fs::exists(descriptor("sub/dead")));
  EXPECT_TRUE(fs::exists(lockFile("held")));
  EXPECT_TRUE(fs::exists(descriptor("held")));
  EXPECT_TRUE(fs::exists(descriptor("without lock file"))) << "lock files are what it goes by";
  EXPECT_TRUE(holder.letGo());
}

TEST_F(RubbishTest, IsLookedForOnce) {
  TileImageInterprocessRubbishCleaner cleaner(files_);
  cleaner.clearRubbish();
  EXPECT_FALSE(fs::exists(lockFile("dead")));
  leave(lockFile("dead"));
  LogCapture log(ember_logger::trace);
  cleaner.clearRubbish();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_TRUE(fs::exists(lockFile("dead")));
}

TEST_F(RubbishTest, IsRemovedByOneOfTwoOnly) {
  TileImageInterprocessRubbishCleaner first(files_);
  TileImageInterprocessRubbishCleaner second(files_);
  first.clearRubbish();
  leave(lockFile("dead"));
  {
    LogCapture log(ember_logger::trace);
    second.clearRubbish();
    EXPECT_THAT(log.take(), ElementsAre(line("clear rubbish"), line("not clear cache!")));
  }
  EXPECT_TRUE(fs::exists(lockFile("dead")));
}

TEST_F(RubbishTest, IsRemovedByTheNextAfterThatOneIsGone) {
  std::make_unique<TileImageInterprocessRubbishCleaner>(files_)->clearRubbish();
  leave(lockFile("dead"));
  TileImageInterprocessRubbishCleaner(files_).clearRubbish();
  EXPECT_FALSE(fs::exists(lockFile("dead")));
}

TEST_F(RubbishTest, IsNoneWhereNothingWasShared) {
  const SharedImageFiles nowhere(scratch_.wide() + L"nowhere/");
  LogCapture log(ember_logger::trace);
  TileImageInterprocessRubbishCleaner(nowhere).clearRubbish();
  EXPECT_THAT(log.take(), ElementsAre(line("clear rubbish"), line("not clear cache!")));
  EXPECT_FALSE(fs::exists(scratch_.path() / "nowhere"));
}

TEST_F(RubbishTest, MayLackTheDescriptor) {
  fs::remove(descriptor("dead"));
  TileImageInterprocessRubbishCleaner(files_).clearRubbish();
  EXPECT_FALSE(fs::exists(lockFile("dead")));
}

#ifndef _WIN32
TEST_F(RubbishTest, IncludesDescriptorsThatWereNotFinished) {
  const std::string dead = ".json." + std::to_string(support::endedProcessId()) + "-1.part";
  const std::string alive = ".json." + std::to_string(getpid()) + "-1.part";
  leave(descriptor("x").parent_path() / ("x" + dead), "{\"meta");
  leave(descriptor("x").parent_path() / ("sub/y" + dead), "{\"meta");
  leave(descriptor("x").parent_path() / ("z" + alive), "{\"meta");
  leave(descriptor("x").parent_path() / "other.part");
  TileImageInterprocessRubbishCleaner(files_).clearRubbish();
  EXPECT_THAT(support::namesIn(descriptor("x").parent_path()), ElementsAre("other.part", "sub", "z" + alive));
  EXPECT_THAT(support::namesIn(descriptor("sub/y").parent_path()), IsEmpty());
}
#endif

// ---- Backing files that others hold

class HoldersTest : public OwnershipTest {
 protected:
  // The descriptor of an image in one file.
  void describe(const std::wstring& identifier, std::uint64_t fileNumber) const {
    InterprocessTileImageInfo info;
    auto& files = *info.interprocessFileMappingInfo;
    files.dirList = {L"/caches/"};
    files.prefix = L"process_1_";
    files.suffix = L".korvaneFileMapping";
    files.fileBriefInfoList = {{0, 65536, fileNumber}, {7, 65536, 99}};
    ASSERT_TRUE(TileImageInterprocessJsonHelper(identifier, files_).serialize(info));
  }

  static std::wstring file(std::uint64_t number) {
    return L"/caches/process_1_" + std::to_wstring(number) + L".korvaneFileMapping";
  }
};

TEST_F(HoldersTest, UseTheFilesOfTheirDescriptors) {
  describe(L"held", 1);
  describe(L"sub/held", 2);
  describe(L"left", 3);
  describe(L"without lock file", 4);
  leave(lockFile("left"));
  leave(descriptor("broken"), "{\"desc\":");
  Holder one = hold(lockFile("held"));
  Holder two = hold(lockFile("sub/held"));
  Holder broken = hold(lockFile("broken"));
  const LogCapture log;
  const Holders holders(files_);
  EXPECT_TRUE(holders.use(file(1)));
  EXPECT_TRUE(holders.use(file(2)));
  EXPECT_FALSE(holders.use(file(3)));
  EXPECT_FALSE(holders.use(file(4)));
  EXPECT_FALSE(holders.use(file(99)));
  EXPECT_TRUE(one.letGo());
  EXPECT_TRUE(two.letGo());
  EXPECT_TRUE(broken.letGo());
  EXPECT_TRUE(fs::exists(lockFile("left")));
}

#ifndef _WIN32
TEST_F(HoldersTest, UseFilesWhateverWayTheirPathTakes) {
  fs::create_directories(scratch_.path() / "caches");
  fs::create_directory_symlink(scratch_.path() / "caches", scratch_.path() / "link");
  support::writeFile(scratch_.path() / "caches/process_1_1.korvaneFileMapping", "");
  support::writeFile(scratch_.path() / "caches/process_1_2.korvaneFileMapping", "");
  InterprocessTileImageInfo info;
  auto& files = *info.interprocessFileMappingInfo;
  files.dirList = {scratch_.wide() + L"link/"};
  files.prefix = L"process_1_";
  files.suffix = L".korvaneFileMapping";
  files.fileBriefInfoList = {{0, 65536, 1}};
  ASSERT_TRUE(TileImageInterprocessJsonHelper(L"held", files_).serialize(info));
  Holder holder = hold(lockFile("held"));
  const Holders holders(files_);
  EXPECT_TRUE(holders.use(scratch_.wide() + L"caches/process_1_1.korvaneFileMapping"));
  EXPECT_FALSE(holders.use(scratch_.wide() + L"caches/process_1_2.korvaneFileMapping"));
  EXPECT_TRUE(holder.letGo());
}
#endif

TEST_F(HoldersTest, ComeLaterThanTheCleanUpThatFoundNone) {
  describe(L"left", 3);
  leave(lockFile("left"));
  auto holders = std::make_unique<Holders>(files_);
  std::atomic<bool> held{false};
  Holder holder;
  std::thread thread([&] {
    holder = hold(lockFile("left"));
    held = true;
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_FALSE(held);
  holders.reset();
  thread.join();
  EXPECT_TRUE(holder);
  EXPECT_TRUE(holder.letGo());
}

}  // namespace
