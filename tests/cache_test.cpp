// The folders for backing files: their configuration, their choice, the names in them and the removal of leftovers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cache/file_mapping_dir_helper.h"
#include "cache/file_mapping_file_path_helper.h"
#include "cache/host.h"
#include "cache/json_helper.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/utf8.h"
#include "platform/volumes.h"
#include "support/cache_folders.h"
#include "support/default_configuration.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

using cache::FileMappingDirHelper;
using cache::FileMappingFilePathHelper;
using cache::Host;
using cache::JsonHelper;
using support::CacheFoldersTest;
using support::contentsOf;
using support::errors;
using support::LogCapture;
using support::LogLine;
using support::LogLines;
using support::ScratchFolder;
using support::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();

// ---- JSON files

class JsonHelperTest : public testing::Test {
 protected:
  // Writes a document given as text.
  static bool write(const std::wstring& path, const char* json, bool pretty) {
    rapidjson::Document document;
    document.Parse(json);
    return JsonHelper::write(path, document, pretty);
  }

  // Reads the file and gives its document as compact text; empty if reading fails.
  static std::string read(const std::wstring& path) {
    rapidjson::Document document;
    if (!JsonHelper::read(path, document)) {
      return "";
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    return buffer.GetString();
  }

  // As a message shows it.
  std::string shown(const char* name) const { return scratch_.path().generic_string() + "/" + name; }
  std::wstring pathOf(const wchar_t* name) const { return scratch_.wide() + name; }

  LogLine readFailed(const char* name, const char* step) const {
    return {ember_logger::error, "[JsonHelper::read] jsonFilePath:" + shown(name) + " " + step + " failed!"};
  }

  ScratchFolder scratch_;
  LogCapture log_;
};

TEST_F(JsonHelperTest, RefusesAnEmptyPath) {
  EXPECT_EQ(read(L""), "");
  EXPECT_FALSE(write(L"", "{}", true));
  EXPECT_EQ(log_.take(),
            errors({"[JsonHelper::read] jsonFilePath is empty!", "[JsonHelper::write] jsonFilePath is empty!"}));
}

TEST_F(JsonHelperTest, ReportsAFileThatCannotBeOpened) {
  EXPECT_EQ(read(pathOf(L"missing.json")), "");
  EXPECT_THAT(log_.take(), ElementsAre(readFailed("missing.json", "open")));
  std::filesystem::create_directory(scratch_.path() / "folder");
  EXPECT_EQ(read(pathOf(L"folder")), "");
  EXPECT_THAT(log_.take(), ElementsAre(readFailed("folder", "open")));
}

TEST_F(JsonHelperTest, ReportsTextThatIsNotJson) {
  for (const char* text :
       {"", " \n", "{", "[1,]", "{\"a\":1,}", "{a:1}", "// note\n{}", "1 2", "nul", "'x'", "[NaN]"}) {
    writeFile(scratch_.path() / "a.json", text);
    EXPECT_EQ(read(pathOf(L"a.json")), "") << text;
    EXPECT_THAT(log_.take(), ElementsAre(readFailed("a.json", "parse"))) << text;
  }
}

TEST_F(JsonHelperTest, ReadsWhateverTheDocumentsShape) {
  for (const char* text : {"{}", "[]", "null", "true", "\"x\"", "-1.5", "{\"a\":[1,{\"b\":null}]}",
                           "[18446744073709551615,-9223372036854775808]", "[\"\xC3\xA4\xF0\x9F\x98\x80\"]"}) {
    writeFile(scratch_.path() / "a.json", text);
    EXPECT_EQ(read(pathOf(L"a.json")), text);
  }
  writeFile(scratch_.path() / "a.json", "\t{ \"a\" :\r\n [ 1 ,\n2 ] }\r\n");
  EXPECT_EQ(read(pathOf(L"a.json")), "{\"a\":[1,2]}");
  EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(JsonHelperTest, ReadsTextsLongerThanAnyBuffer) {
  const std::string text = "[\"" + std::string(100000, 'x') + "\"]";
  writeFile(scratch_.path() / "a.json", text);
  EXPECT_EQ(read(pathOf(L"a.json")), text);
}

TEST_F(JsonHelperTest, SurvivesAMillionBrackets) {
  const std::string open(1000000, '[');
  writeFile(scratch_.path() / "a.json", open);
  EXPECT_EQ(read(pathOf(L"a.json")), "");
  EXPECT_THAT(log_.take(), ElementsAre(readFailed("a.json", "parse")));
  writeFile(scratch_.path() / "a.json", open + std::string(1000000, ']'));
  rapidjson::Document document;
  EXPECT_TRUE(JsonHelper::read(pathOf(L"a.json"), document));
  EXPECT_TRUE(document.IsArray());
  std::string objects;
  for (int i = 0; i < 200000; ++i) {
    objects += "{\"a\":";
  }
  writeFile(scratch_.path() / "a.json", objects);
  EXPECT_EQ(read(pathOf(L"a.json")), "");
}

TEST_F(JsonHelperTest, WritesCompactOrInLines) {
  const char* const json = R"({"a":[1,"x",{}],"b":{"c":true,"d":[]},"e":0.5})";
  ASSERT_TRUE(write(pathOf(L"a.json"), json, false));
  EXPECT_EQ(contentsOf(scratch_.path() / "a.json"), json);
  ASSERT_TRUE(write(pathOf(L"a.json"), json, true));
  EXPECT_EQ(contentsOf(scratch_.path() / "a.json"), support::asStoredText("{\n"
                                                                          "    \"a\": [\n"
                                                                          "        1,\n"
                                                                          "        \"x\",\n"
                                                                          "        {}\n"
                                                                          "    ],\n"
                                                                          "    \"b\": {\n"
                                                                          "        \"c\": true,\n"
                                                                          "        \"d\": []\n"
                                                                          "    },\n"
                                                                          "    \"e\": 0.5\n"
                                                                          "}"));
  EXPECT_EQ(read(pathOf(L"a.json")), json);
}

TEST_F(JsonHelperTest, ReplacesTheWholeFile) {
  writeFile(scratch_.path() / "a.json", std::string(5000, 'x'));
  ASSERT_TRUE(write(pathOf(L"a.json"), "[1]", true));
  EXPECT_EQ(contentsOf(scratch_.path() / "a.json"), support::asStoredText("[\n    1\n]"));
  ASSERT_TRUE(write(pathOf(L"a.json"), "{}", false));
  EXPECT_EQ(contentsOf(scratch_.path() / "a.json"), "{}");
}

TEST_F(JsonHelperTest, LeavesNothingElseInTheFolder) {
  ASSERT_TRUE(write(pathOf(L"a.json"), "{}", false));
  ASSERT_TRUE(write(pathOf(L"a.json"), "[]", false));
  EXPECT_THAT(support::namesIn(scratch_.path()), ElementsAre("a.json"));
}

TEST_F(JsonHelperTest, MakesTheChainOfFolders) {
  ASSERT_TRUE(write(pathOf(L"a/b/c/d.json"), "[]", false));
  EXPECT_EQ(contentsOf(scratch_.path() / "a/b/c/d.json"), "[]");
  EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(JsonHelperTest, TakesNamesInAnyLanguage) {
  const std::wstring name = L"\u00E4/\u56FE/\U0001F600.json";
  ASSERT_TRUE(write(pathOf(name.c_str()), "[]", false));
  EXPECT_EQ(contentsOf(scratch_.path() / u8"\u00E4/\u56FE/\U0001F600.json"), "[]");
  EXPECT_EQ(read(pathOf(name.c_str())), "[]");
  EXPECT_EQ(read(pathOf(L"\u00E4/\u56FE.json")), "");
  EXPECT_THAT(log_.take(), ElementsAre(readFailed("\xC3\xA4/\xE5\x9B\xBE.json", "open")));
}

TEST_F(JsonHelperTest, WritesNothingIfAValueIsNoJson) {
  writeFile(scratch_.path() / "a.json", "before");
  for (const double value : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()}) {
    for (const bool pretty : {false, true}) {
      rapidjson::Document document(rapidjson::kArrayType);
      document.PushBack(1, document.GetAllocator()).PushBack(value, document.GetAllocator());
      EXPECT_FALSE(JsonHelper::write(pathOf(L"a.json"), document, pretty));
      EXPECT_FALSE(JsonHelper::write(pathOf(L"folder/a.json"), document, pretty));
      EXPECT_EQ(log_.take(), errors({"[JsonHelper::write] json serialization failed!",
                                     "[JsonHelper::write] json serialization failed!"}));
    }
  }
  EXPECT_EQ(contentsOf(scratch_.path() / "a.json"), "before");
  EXPECT_FALSE(std::filesystem::exists(scratch_.path() / "folder"));
}

TEST_F(JsonHelperTest, ReportsAFolderThatCannotBeMade) {
  writeFile(scratch_.path() / "file", "kept");
  for (const char* name : {"file/a.json", "file/below/a.json"}) {
    EXPECT_FALSE(write(pathOf(platform::fromUtf8(name).c_str()), "[]", false));
    EXPECT_THAT(log_.take(), ElementsAre(LogLine{ember_logger::error,
                                                 "[JsonHelper::write] dir create failed "
                                                 "[jsonFilePath:" +
                                                     shown(name) + "]!"}));
  }
  EXPECT_EQ(contentsOf(scratch_.path() / "file"), "kept");
}

TEST_F(JsonHelperTest, ReportsAFileThatCannotBeMade) {
  std::filesystem::create_directory(scratch_.path() / "folder");
  EXPECT_FALSE(write(pathOf(L"folder"), "[]", false));
  EXPECT_THAT(log_.take(), ElementsAre(LogLine{ember_logger::error, "[JsonHelper::write] jsonFilePath:" +
                                                                        shown("folder") + " create failed!"}));
  EXPECT_TRUE(std::filesystem::is_empty(scratch_.path() / "folder"));
}

TEST_F(JsonHelperTest, KeepsOutWhileTheFileIsBeingWrittenElsewhere) {
  writeFile(scratch_.path() / "a.json", "[1]");
  {
    const support::HeldFile writer(scratch_.path() / "a.json");
    EXPECT_EQ(read(pathOf(L"a.json")), "");
    EXPECT_THAT(log_.take(), ElementsAre(readFailed("a.json", "open")));
  }
  EXPECT_EQ(read(pathOf(L"a.json")), "[1]");
}

TEST_F(JsonHelperTest, ReadsWhileOthersRead) {
  writeFile(scratch_.path() / "a.json", "[1]");
  const platform::Stream reader = platform::openTextForReading(pathOf(L"a.json"));
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(read(pathOf(L"a.json")), "[1]");
  EXPECT_THAT(log_.take(), IsEmpty());
}

TEST_F(JsonHelperTest, NeverReadsAHalfWrittenFile) {
  const std::string shorter = "[\"" + std::string(20000, 'a') + "\"]";
  const std::string longer = "[\"" + std::string(60000, 'b') + "\"]";
  ASSERT_TRUE(write(pathOf(L"a.json"), shorter.c_str(), false));
  std::atomic<bool> done = false;
  std::thread writer([&] {
    for (int round = 0; round < 50; ++round) {
      write(pathOf(L"a.json"), (round % 2 == 0 ? longer : shorter).c_str(), false);
    }
    done = true;
  });
  while (!done) {
    const std::string found = read(pathOf(L"a.json"));
    EXPECT_TRUE(found.empty() || found == shorter || found == longer) << found.size();
  }
  writer.join();
  for (const LogLine& line : log_.take()) {  // opened or not, but never read in part
    EXPECT_EQ(line.text.find("parse failed"), std::string::npos) << line;
  }
}

TEST(FindMemberTest, FindsNothingInWhatIsNoObject) {
  rapidjson::Document document;
  for (const char* json : {"[]", "[\"a\"]", "null", "1", "\"a\"", "true", "{}", "{\"b\":1}"}) {
    document.Parse(json);
    EXPECT_EQ(cache::findMember(document, "a"), nullptr) << json;
  }
  document.Parse("{\"b\":1,\"a\":2}");
  ASSERT_NE(cache::findMember(document, "a"), nullptr);
  EXPECT_EQ(cache::findMember(document, "a")->GetInt(), 2);
}

// ---- The program

TEST(HostTest, HasATagOfItsNameAndItsPath) {
  // The name-based UUIDs (version 5, DNS namespace) of the paths, each character hashed as four bytes, lowest first.
  const struct {
    std::wstring executable, tag;
  } table[] = {
      {L"C:/Program Files/Sample/ScanTool.exe", L"ScanTool_21b860e3-7dde-5f98-9372-f218a741d81c"},
      {L"/home/ann/apps/scan-tool", L"scan-tool_173be45f-c980-56d2-8b59-ded4396e2f8a"},
      {L"/srv/apps/viewer.v2.1.exe", L"viewer.v2.1_b1298bcd-e772-565e-8d7f-765a1bd4ec31"},
      {L"/home/\u00E4nn/\u30D7\u30ED\u30B0\u30E9\u30E0/\u30D3\u30E5\u30FC\u30A2.exe",
       L"\u30D3\u30E5\u30FC\u30A2_8df7839f-e54b-58a4-bc28-71152c9ef34a"},
      {L"/home/ann/\U0001F600/view.exe",
       sizeof(wchar_t) == 2 ? L"view_b7fe12ea-5f12-5207-b382-070380093760"  // two surrogates
                            : L"view_d6578b5b-188c-5767-81ea-bf2543f5ecfb"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(Host(row.executable, L"/data/").tag(), row.tag);
  }
}

TEST(HostTest, KeepsItsFilesInTheUsersDataAndBesideTheProgram) {
  const ScratchFolder scratch;
  std::filesystem::create_directory(scratch.path() / "bin");
  const std::wstring executable = scratch.wide() + L"bin/viewer.v2.exe";
  const Host host(executable, scratch.wide() + L"data/");
  EXPECT_EQ(host.executableName(), L"viewer.v2.exe");
  EXPECT_EQ(host.dataFolder(), scratch.wide() + L"data/Korvane/KvTileImage/");
  EXPECT_EQ(host.configurationFile(), host.dataFolder() + L"KvTileImage_FileMapingConfig.json");
  EXPECT_EQ(host.hostCacheRoot(), scratch.wide() + L"bin/KvTileImageFileMappingCaches/");
  EXPECT_EQ(host.cleanUpLockFile(), host.hostCacheRoot() + host.tag() + L".filelock");
  EXPECT_TRUE(host.tag().starts_with(L"viewer.v2_"));
}

TEST(HostTest, IsTheRunningProgram) {
  const Host host = Host::current();
  EXPECT_EQ(host.tag(), Host(platform::executablePath(), L"/data/").tag());
  EXPECT_EQ(host.dataFolder(), platform::localDataFolder() + L"Korvane/KvTileImage/");
}

// ---- Names of backing files

using PathHelper = FileMappingFilePathHelper;

std::wstring ownName(std::uint64_t number) {
  return L"process_" + std::to_wstring(platform::currentProcessId()) + L"_" + std::to_wstring(number) +
         L".korvaneFileMapping";
}

TEST(FileMappingFilePathHelperTest, NumbersTheFilesOfAllFoldersInOneSequence) {
  const auto first = PathHelper::getUniqueFileInfo(L"C:/caches/");
  ASSERT_TRUE(first);
  const std::uint64_t number = first->number;
  EXPECT_EQ(first->path, L"C:/caches/" + ownName(number));
  const auto second = PathHelper::getUniqueFileInfo(L"/other/folder/");
  ASSERT_TRUE(second);
  EXPECT_EQ(second->number, number + 1);
  EXPECT_EQ(second->path, L"/other/folder/" + ownName(number + 1));
}

TEST(FileMappingFilePathHelperTest, PutsASeparatorWhereThereIsNone) {
  for (const auto& [folder, start] : {std::pair{L"C:/caches", L"C:/caches/"},
                                      {L"C:/caches/", L"C:/caches/"},
                                      {L"C:\\caches\\", L"C:\\caches\\"},
                                      {L"C:\\caches", L"C:\\caches/"},
                                      {L"/", L"/"},
                                      {L"x", L"x/"}}) {
    const auto info = PathHelper::getUniqueFileInfo(folder);
    ASSERT_TRUE(info);
    EXPECT_EQ(info->path, start + ownName(info->number));
  }
}

TEST(FileMappingFilePathHelperTest, NamesNothingWithoutAFolderAndCountsNothing) {
  const auto before = PathHelper::getUniqueFileInfo(L"a");
  EXPECT_FALSE(PathHelper::getUniqueFileInfo(L""));
  const auto after = PathHelper::getUniqueFileInfo(L"a");
  ASSERT_TRUE(before && after);
  EXPECT_EQ(after->number, before->number + 1);
}

TEST(FileMappingFilePathHelperTest, GivesEveryThreadOtherNames) {
  constexpr int kThreads = 4;
  constexpr int kNames = 1000;
  const std::uint64_t first = PathHelper::getUniqueFileInfo(L"a")->number + 1;
  std::vector<std::vector<std::wstring>> names(kThreads);
  std::vector<std::thread> threads;
  for (auto& own : names) {
    threads.emplace_back([&own] {
      for (int i = 0; i < kNames; ++i) {
        own.push_back(PathHelper::getUniqueFileInfo(L"a")->path);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  std::set<std::wstring> all;
  for (const auto& own : names) {
    all.insert(own.begin(), own.end());
  }
  std::set<std::wstring> expected;
  for (std::uint64_t number = first; number < first + kThreads * kNames; ++number) {
    expected.insert(L"a/" + ownName(number));
  }
  EXPECT_EQ(all, expected);
}

TEST(FileMappingFilePathHelperTest, ReadsTheProcessIdFromAName) {
  const struct {
    const wchar_t* path;
    std::optional<std::int32_t> id;
  } table[] = {
      {L"process_4120_0.korvaneFileMapping", 4120},
      {L"C:/caches/a_7_b/process_4120_17.korvaneFileMapping", 4120},
      {L"/var/\u56FE_1_2/process_4120_17.korvaneFileMapping", 4120},
      {L"\u56FE_12_\U0001F600.korvaneFileMapping", 12},
      {L"process_abc_3.korvaneFileMapping", 0},
      {L"process__3.korvaneFileMapping", 0},
      {L"process_12abc_3.korvaneFileMapping", 12},
      {L"process_ 12_3.korvaneFileMapping", 12},
      {L"process_+12_3.korvaneFileMapping", 12},
      {L"process_-12_3.korvaneFileMapping", -12},
      {L"process_0x10_3.korvaneFileMapping", 0},
      {L"process_0012_3.korvaneFileMapping", 12},
      {L"__.korvaneFileMapping", 0},
      {L"_5_.korvaneFileMapping", 5},
      {L"a_6_7_8.korvaneFileMapping", 6},
      {L"process_2147483647_0.korvaneFileMapping", 2147483647},
      {L"process_2147483648_0.korvaneFileMapping", 2147483647},
      {L"process_99999999999999999999999_0.korvaneFileMapping", 2147483647},
      {L"process_-99999999999999999999999_0.korvaneFileMapping", std::numeric_limits<std::int32_t>::min()},
      {L"stray.korvaneFileMapping", std::nullopt},
      {L"process_12.korvaneFileMapping", std::nullopt},
      {L"process_12.x_0.korvaneFileMapping", 12},
      {L"process_12._0", std::nullopt},  // what is behind the last dot is the extension
      {L"a_7_b/stray.korvaneFileMapping", std::nullopt},
      {L"process_.korvaneFileMapping", std::nullopt},
      {L"", std::nullopt},
      {L"_", std::nullopt},
  };
  for (const auto& row : table) {
    EXPECT_EQ(PathHelper::processIdOf(row.path), row.id) << testing::PrintToString(std::wstring(row.path));
  }
}

TEST(FileMappingFilePathHelperTest, FindsItsOwnProcessInItsNames) {
  const auto info = PathHelper::getUniqueFileInfo(L"a");
  ASSERT_TRUE(info);
  EXPECT_EQ(PathHelper::processIdOf(info->path), static_cast<std::int32_t>(platform::currentProcessId()));
}

// ---- The configuration

using ConfigurationTest = CacheFoldersTest;

TEST_F(ConfigurationTest, IsWrittenIfThereIsNone) {
  LogCapture log;
  const FileMappingDirHelper helper(host());
  EXPECT_EQ(contentsOf(configurationFile()), support::asStoredText(support::kDefaultConfiguration));
  EXPECT_THAT(helper.rootDirList(), ElementsAre(defaultFolder()));
  EXPECT_TRUE(std::filesystem::is_directory(helper.rootDirList()[0]));
  EXPECT_TRUE(helper.bAlternateUseDisk());
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ConfigurationTest, IsLeftAsItIs) {
  const std::string text = " {\"desc\" : {} , \"more\" : 1}\n";
  configure(text);
  const FileMappingDirHelper helper(host());
  EXPECT_EQ(contentsOf(configurationFile()), text);
}

TEST_F(ConfigurationTest, WithEmptyRootsMeansTheDefaultFolders) {
  configure(support::kDefaultConfiguration);
  LogCapture log;
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), ElementsAre(defaultFolder()));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ConfigurationTest, NamesTheRoots) {
  configureRoots({"", utf8Of(L"roots/a"), ""});
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), ElementsAre(scratch_.wide() + L"roots/a/" + host().tag() + L"/"));
  EXPECT_TRUE(std::filesystem::is_directory(helper.rootDirList()[0]));
  EXPECT_FALSE(std::filesystem::exists(scratch_.path() / "data/Korvane/KvTileImage/caches"));
}

TEST_F(ConfigurationTest, TakesRootsThatEndWithASeparator) {
  configureRoots({utf8Of(L"roots/a/")});
  EXPECT_THAT(FileMappingDirHelper(host()).rootDirList(),
              ElementsAre(scratch_.wide() + L"roots/a/" + host().tag() + L"/"));
}

TEST_F(ConfigurationTest, TakesRootsInAnyLanguage) {
  configureRoots({utf8Of(L"r\u00E4ume/\u56FE/\U0001F600")});
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(),
              ElementsAre(scratch_.wide() + L"r\u00E4ume/\u56FE/\U0001F600/" + host().tag() + L"/"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch_.path() / u8"r\u00E4ume/\u56FE/\U0001F600" /
                                            platform::toUtf8(host().tag())));
}

TEST_F(ConfigurationTest, OfAUserWithAnyNameIsFound) {
  const Host host(scratch_.wide() + L"bin/viewer.exe", scratch_.wide() + L"\u00E4nn \u56FE/");
  LogCapture log;
  const FileMappingDirHelper helper(host);
  EXPECT_THAT(helper.rootDirList(),
              ElementsAre(scratch_.wide() + L"\u00E4nn \u56FE/Korvane/KvTileImage/caches/" + host.tag() + L"/"));
  EXPECT_EQ(contentsOf(scratch_.path() / u8"\u00E4nn \u56FE/Korvane/KvTileImage/KvTileImage_FileMapingConfig.json"),
            support::asStoredText(support::kDefaultConfiguration));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ConfigurationTest, OfAProgramWithAnyNameIsFound) {
  std::filesystem::create_directory(scratch_.path() / u8"\u00E4pps");
  const Host host(scratch_.wide() + L"\u00E4pps/\u56FE.exe", scratch_.wide() + L"data/");
  LogCapture log;
  const FileMappingDirHelper helper(host);
  EXPECT_THAT(helper.rootDirList(), SizeIs(1));
  EXPECT_TRUE(std::filesystem::exists(scratch_.path() / u8"\u00E4pps/KvTileImageFileMappingCaches"));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(ConfigurationTest, SettlesARelativeRootWhereTheProgramIsNow) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(scratch_.path());
  configureRoots({"rel/ative"});
  const FileMappingDirHelper helper(host());
  std::filesystem::current_path(before);
  EXPECT_THAT(helper.rootDirList(), ElementsAre(platform::widePath(std::filesystem::canonical(scratch_.path())) +
                                                L"/rel/ative/" + host().tag() + L"/"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch_.path() / "rel/ative" / platform::toUtf8(host().tag())));
}

TEST_F(ConfigurationTest, MayBeOfAnyVersion) {
  for (const char* meta :
       {R"({"mainVersion":99,"subVersion":-1,"type":"Other"})", R"({"mainVersion":"x"})", "[]", "7", "null", "{}"}) {
    configure(std::string("{\"meta\":") + meta + ",\"desc\":{\"rootDirList\":[\"" + utf8Of(L"a") + "\"]}}");
    EXPECT_THAT(FileMappingDirHelper(host()).rootDirList(), ElementsAre(cacheFolder(L"a"))) << meta;
  }
}

TEST_F(ConfigurationTest, AlternatesUnlessItSaysOtherwise) {
  for (const auto& [text, expected] : {std::pair{"true", true},
                                       {"false", false},
                                       {"\"yes\"", false},
                                       {"\"true\"", false},
                                       {"1", false},
                                       {"null", false},
                                       {"[]", false},
                                       {"{}", false}}) {
    configure(std::string("{\"desc\":{\"bAlternateUseDisk\":") + text + "}}");
    EXPECT_EQ(FileMappingDirHelper(host()).bAlternateUseDisk(), expected) << text;
  }
  configure("{\"desc\":{}}");
  EXPECT_TRUE(FileMappingDirHelper(host()).bAlternateUseDisk());
}

TEST_F(ConfigurationTest, OfTheWrongShapeMeansTheDefaults) {
  for (const char* text :
       {"{}", "[]", "[{\"desc\":1}]", "null", "\"desc\"", "3", "{\"desc\":7}", "{\"desc\":null}", "{\"desc\":[]}",
        "{\"desc\":\"rootDirList\"}", "{\"meta\":{}}", "{\"desc\":{}}", "{\"desc\":{\"rootDirList\":\"C:/a\"}}",
        "{\"desc\":{\"rootDirList\":{\"0\":\"C:/a\"}}}", "{\"desc\":{\"rootDirList\":5}}",
        "{\"desc\":{\"rootDirList\":null}}", "{\"desc\":{\"rootDirList\":[]}}",
        "{\"desc\":{\"rootDirList\":[1,-2.5,null,true,{},[\"C:/a\"]]}}"}) {
    configure(text);
    LogCapture log;
    const FileMappingDirHelper helper(host());
    EXPECT_THAT(helper.rootDirList(), ElementsAre(defaultFolder())) << text;
    EXPECT_TRUE(helper.bAlternateUseDisk()) << text;
    EXPECT_THAT(log.take(), IsEmpty()) << text;
  }
}

TEST_F(ConfigurationTest, SkipsElementsThatAreNoText) {
  configure("{\"desc\":{\"rootDirList\":[1,null,{\"a\":\"b\"},[\"c\"],\"" + utf8Of(L"a") + "\",false]}}");
  EXPECT_THAT(FileMappingDirHelper(host()).rootDirList(), ElementsAre(cacheFolder(L"a")));
}

TEST_F(ConfigurationTest, TellsWhetherItCouldBeUsed) {
  const FileMappingDirHelper helper(host());
  std::vector<std::wstring> list{L"before"};
  bool alternate = false;
  const auto read = [&](const std::string& text) {
    configure(text);
    list = {L"before"};
    alternate = false;
    return helper.getFromConfigW(list, alternate);
  };
  EXPECT_TRUE(read(R"({"desc":{"rootDirList":["D:/b","","C:/a\\x"],"bAlternateUseDisk":false}})"));
  EXPECT_THAT(list, ElementsAre(L"D:/b", L"C:/a\\x"));
  EXPECT_FALSE(alternate);
  LogCapture log;
  EXPECT_FALSE(read("{\"rootDirList\":[\"D:/b\"]}"));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_TRUE(alternate);
  EXPECT_THAT(log.take(), IsEmpty());  // a file without settings is no fault
  EXPECT_FALSE(read("{\"desc\":"));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_TRUE(alternate);
  EXPECT_EQ(log.take(),
            errors({("[JsonHelper::read] jsonFilePath:" + utf8Of(kConfigurationFile) + " parse failed!").c_str(),
                    "[FileMappingDirHelper::getFromConfigW] json read failed"}));
  std::filesystem::remove(configurationFile());
  EXPECT_TRUE(helper.getFromConfigW(list, alternate));
  EXPECT_THAT(list, IsEmpty());
  EXPECT_TRUE(alternate);
  EXPECT_TRUE(std::filesystem::exists(configurationFile()));
}

TEST_F(ConfigurationTest, ThatIsNoJsonMeansTheDefaultsAndIsReported) {
  configure("not JSON");
  LogCapture log;
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), ElementsAre(defaultFolder()));
  EXPECT_EQ(log.take(),
            errors({("[JsonHelper::read] jsonFilePath:" + utf8Of(kConfigurationFile) + " parse failed!").c_str(),
                    "[FileMappingDirHelper::getFromConfigW] json read failed"}));
  EXPECT_EQ(contentsOf(configurationFile()), "not JSON");
}

TEST_F(ConfigurationTest, WithARootThatIsNotUtf8IsRefusedWithoutACrash) {
  configureRoots({"\xFF\xFE"});
  EXPECT_THROW(FileMappingDirHelper{host()}, std::range_error);
  configureRoots({utf8Of(L"a"), "cut \xE5\x9B"});
  EXPECT_THROW(FileMappingDirHelper{host()}, std::range_error);
}

TEST_F(ConfigurationTest, WithARootThatCannotBeMadeIsRefused) {
  writeFile(scratch_.path() / "file", "kept");
  for (const wchar_t* root : {L"file", L"file/below"}) {
    configureRoots({utf8Of(root)});
    try {
      const FileMappingDirHelper helper(host());
      ADD_FAILURE() << "made";
    } catch (const std::filesystem::filesystem_error& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr("create_directories(p): invalid argument"));
    }
  }
  EXPECT_EQ(contentsOf(scratch_.path() / "file"), "kept");
}

TEST_F(ConfigurationTest, ThatCannotBeWrittenMeansTheDefaultsAndIsReported) {
  std::filesystem::create_directories(scratch_.path() / "data/Korvane/KvTileImage");
  std::filesystem::create_directory(configurationFile());  // there, but no file
  LogCapture log;
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), ElementsAre(defaultFolder()));
  EXPECT_EQ(log.take(),
            errors({("[JsonHelper::read] jsonFilePath:" + utf8Of(kConfigurationFile) + " open failed!").c_str(),
                    "[FileMappingDirHelper::getFromConfigW] json read failed"}));
}

// ---- The cache folders

using CacheFolderListTest = CacheFoldersTest;

std::vector<std::string> textsOf(const LogLines& lines) {
  std::vector<std::string> texts;
  std::transform(lines.begin(), lines.end(), std::back_inserter(texts), [](const LogLine& line) { return line.text; });
  return texts;
}

TEST_F(CacheFolderListTest, LeavesADefaultFolderOutThatCannotBeMade) {
  writeFile(scratch_.path() / "data", "in the way");
  LogCapture log(ember_logger::warning);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(),
              ElementsAre(scratch_.wide() + L"bin/KvTileImageFileMappingCaches/" + host().tag() + L"/"));
  const auto lines = log.take();
  ASSERT_THAT(lines, SizeIs(3));
  EXPECT_THAT(lines[0].text, testing::StartsWith("[JsonHelper::write] dir create failed [jsonFilePath:"));
  EXPECT_EQ(lines[1].text, "[FileMappingDirHelper::getFromConfigW] json write failed");
  EXPECT_EQ(lines[2].severity, ember_logger::warning);
  EXPECT_THAT(lines[2].text, testing::HasSubstr(utf8Of(L"data/Korvane/KvTileImage/caches/")));
}

TEST_F(CacheFolderListTest, StaysEmptyIfNoDefaultFolderCanBeMade) {
  writeFile(scratch_.path() / "data", "in the way");
  writeFile(scratch_.path() / "bin/KvTileImageFileMappingCaches", "in the way");
  LogCapture log(ember_logger::warning);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(helper.rootDirList(), IsEmpty());
  const auto lines = textsOf(log.take());
  ASSERT_THAT(lines, SizeIs(7));
  EXPECT_THAT(lines[0], testing::StartsWith("[JsonHelper::write] dir create failed [jsonFilePath:"));
  EXPECT_EQ(lines[1], "[FileMappingDirHelper::getFromConfigW] json write failed");
  EXPECT_THAT(lines[2], testing::HasSubstr(utf8Of(L"data/Korvane/KvTileImage/caches/")));
  EXPECT_THAT(lines[3], testing::HasSubstr(utf8Of(L"bin/KvTileImageFileMappingCaches/")));
  EXPECT_EQ(lines[4], "[FileMappingDirHelper::initRootDirList] rootDirList is empty");
  EXPECT_EQ(lines[5], "[FileMappingDirHelper::FileMappingDirHelper] init failed");
  EXPECT_EQ(lines[6], "[FileMappingDirHelper::clearRubbish] createDirWithFilePath failed:" +
                          platform::toUtf8(host().cleanUpLockFile()) + "!");
  EXPECT_EQ(helper.getSuitableRootDirIndex(1), -1);
  EXPECT_EQ(log.take(), errors({"[FileMappingDirHelper::getSuitableRootDirIndex] not find suitable dir"}));
  EXPECT_EQ(helper.rootDir(-1), L"");
  EXPECT_EQ(helper.rootDir(0), L"");
}

TEST_F(CacheFolderListTest, HasOneFolderPerDiskTheFirstNamed) {
  configureRoots({utf8Of(L"b"), utf8Of(L"a"), utf8Of(L"b")});
  EXPECT_THAT(FileMappingDirHelper(host()).rootDirList(), ElementsAre(cacheFolder(L"b")));
  EXPECT_FALSE(std::filesystem::exists(scratch_.path() / "a"));
  const ScratchFolder elsewhere(support::folderOnAnotherDisk());
  const std::string other = elsewhere.path().generic_string();
  configureRoots({other + "/x", utf8Of(L"b"), other + "/y", utf8Of(L"a")});
  EXPECT_THAT(FileMappingDirHelper(host()).rootDirList(),
              ElementsAre(elsewhere.wide() + L"x/" + host().tag() + L"/", cacheFolder(L"b")));
  EXPECT_FALSE(std::filesystem::exists(elsewhere.path() / "y"));
}

TEST_F(CacheFolderListTest, IsTakenByItsIndex) {
  configureRoots({utf8Of(L"a")});
  const FileMappingDirHelper helper(host());
  EXPECT_EQ(helper.rootDir(0), cacheFolder(L"a"));
  for (const std::int64_t index : {std::int64_t{-1}, std::int64_t{1}, std::numeric_limits<std::int64_t>::max(),
                                   std::numeric_limits<std::int64_t>::min()}) {
    EXPECT_EQ(helper.rootDir(index), L"") << index;
  }
}

TEST_F(CacheFolderListTest, OfOneFolderIsNeverCheckedForRoom) {
  configureRoots({utf8Of(L"a")});
  const FileMappingDirHelper helper(host());
  for (const std::uint64_t bytes : {std::uint64_t{0}, std::uint64_t{1} << 62, kMost}) {
    EXPECT_EQ(helper.getSuitableRootDirIndex(bytes), 0) << bytes;
  }
}

// Two roots, one of them on another disk. Where that is not a disk of this machine (memory), it takes no files.
class TwoDisksTest : public CacheFoldersTest {
 protected:
  void SetUp() override {
    CacheFoldersTest::SetUp();
    otherIsFixed_ = platform::fixedDriveFreeBytes(elsewhere_.wide()) > 0;
  }

  void configureDisks(bool otherFirst, bool alternate) const {
    const std::string other = "\"" + elsewhere_.path().generic_string() + "\"";
    const std::string here = "\"" + utf8Of(L"a") + "\"";
    configure("{\"desc\":{\"rootDirList\":[" + (otherFirst ? other + "," + here : here + "," + other) +
              "],\"bAlternateUseDisk\":" + (alternate ? "true" : "false") + "}}");
  }

  static std::vector<std::int64_t> choices(const FileMappingDirHelper& helper, int count) {
    std::vector<std::int64_t> indexes;
    for (int i = 0; i < count; ++i) {
      indexes.push_back(helper.getSuitableRootDirIndex(1));
    }
    return indexes;
  }

  const ScratchFolder elsewhere_{support::folderOnAnotherDisk()};
  bool otherIsFixed_ = false;
};

TEST_F(TwoDisksTest, TakeFilesInTurn) {
  if (!otherIsFixed_) {
    GTEST_SKIP() << "this machine has one disk only";
  }
  configureDisks(false, true);
  const FileMappingDirHelper helper(host());
  const auto indexes = choices(helper, 5);
  const std::int64_t first = indexes[0];
  EXPECT_TRUE(first == 0 || first == 1);
  EXPECT_THAT(indexes, ElementsAre(first, 1 - first, first, 1 - first, first));
  const FileMappingDirHelper another(host());  // the turns are the process's
  EXPECT_EQ(another.getSuitableRootDirIndex(1), 1 - first);
  EXPECT_EQ(helper.getSuitableRootDirIndex(1), first);
}

TEST_F(TwoDisksTest, FillTheFirstThatHasRoom) {
  configureDisks(false, false);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(choices(helper, 4), ElementsAre(0, 0, 0, 0));
}

TEST_F(TwoDisksTest, LeaveMemoryAlone) {
  if (otherIsFixed_) {
    GTEST_SKIP() << "takes a file system in memory";
  }
  for (const bool alternate : {false, true}) {
    configureDisks(true, alternate);
    EXPECT_THAT(choices(FileMappingDirHelper(host()), 4), ElementsAre(1, 1, 1, 1));
    configureDisks(false, alternate);
    EXPECT_THAT(choices(FileMappingDirHelper(host()), 4), ElementsAre(0, 0, 0, 0));
  }
}

TEST_F(TwoDisksTest, LeaveAGibibyteFree) {
  constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
  const std::uint64_t available = std::filesystem::space(scratch_.path()).available;
  ASSERT_GT(available, 4 * kGibibyte);
  for (const bool alternate : {false, true}) {
    configureDisks(true, alternate);
    const FileMappingDirHelper helper(host());
    LogCapture log;
    EXPECT_NE(helper.getSuitableRootDirIndex(available / 2), -1);
    EXPECT_THAT(log.take(), IsEmpty());
    // Others write to the disk meanwhile: half of the gibibyte is left for them.
    for (const std::uint64_t bytes :
         {available - kGibibyte / 2, available, kMost - kGibibyte, kMost - kGibibyte + 1, kMost}) {
      EXPECT_EQ(helper.getSuitableRootDirIndex(bytes), -1) << bytes << " of " << available;
      EXPECT_EQ(log.take(), errors({"[FileMappingDirHelper::getSuitableRootDirIndex] not find suitable dir"}));
    }
  }
}

// ---- Leftovers

class LeftoversTest : public CacheFoldersTest {
 protected:
  void SetUp() override {
    CacheFoldersTest::SetUp();
    configureRoots({utf8Of(L"a")});
    std::filesystem::create_directories(folder());
  }

  std::filesystem::path folder() const { return scratch_.path() / "a" / platform::toUtf8(host().tag()); }

  void leave(const std::string& name) const { writeFile(folder() / name, "bytes"); }

  static std::string nameFor(std::uint32_t process) {
    return "process_" + std::to_string(process) + "_0.korvaneFileMapping";
  }

  // This process's executable: its files are those of a live process.
  Host ownHost() const { return host(support::ownProgram()); }

  std::vector<std::string> left() const { return support::namesIn(folder()); }

  static LogLine trace(const std::string& text) {
    return {ember_logger::trace, "[FileMappingDirHelper::clearRubbish] " + text};
  }
};

TEST_F(LeftoversTest, OfADeadProcessAreRemoved) {
  leave(nameFor(support::endedProcessId()));
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, OfALiveProcessOfThisProgramAreKept) {
  const Host own = ownHost();
  const std::filesystem::path ownFolder = scratch_.path() / "a" / platform::toUtf8(own.tag());
  std::filesystem::create_directories(ownFolder);
  const std::string name = nameFor(platform::currentProcessId());
  writeFile(ownFolder / name, "bytes");
  writeFile(ownFolder / nameFor(support::endedProcessId()), "bytes");
  const FileMappingDirHelper helper(own);
  EXPECT_THAT(support::namesIn(ownFolder), ElementsAre(name));
  EXPECT_EQ(contentsOf(ownFolder / name), "bytes");
}

TEST_F(LeftoversTest, OfAnIdThatAnotherProgramRunsUnderAreRemoved) {
  leave(nameFor(platform::currentProcessId()));
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, WithInvalidNamesAreRemoved) {
  leave("stray.korvaneFileMapping");
  leave("process_0.korvaneFileMapping");
  leave("process_abc_3.korvaneFileMapping");  // process 0
  leave("process_-5_3.korvaneFileMapping");
  leave("process_99999999999_3.korvaneFileMapping");
  leave(" .korvaneFileMapping");
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, AreRecognisedByTheirExtensionInAnyCase) {
  leave("process_0_3.KORVANEFILEMAPPING");
  leave("process_0_4.korvanefilemapping");
  leave("process_0_5.korvaneFileMapping.bak");
  leave("process_0_6.korvaneFileMappings");
  leave("process_0_7.korvaneFileMappin");
  leave("process_0_8korvaneFileMapping");
  leave("process_0_9");
  leave(".korvaneFileMapping");  // a name without an extension
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), UnorderedElementsAre("process_0_5.korvaneFileMapping.bak", "process_0_6.korvaneFileMappings",
                                           "process_0_7.korvaneFileMappin", "process_0_8korvaneFileMapping",
                                           "process_0_9", ".korvaneFileMapping"));
}

TEST_F(LeftoversTest, AreFilesAndLieInTheFolderItself) {
  const std::string name = nameFor(support::endedProcessId());
  std::filesystem::create_directories(folder() / "below");
  std::filesystem::create_directories(folder() / "folder_0_2.korvaneFileMapping");
  writeFile(folder() / "below" / name, "bytes");
  writeFile(folder() / "folder_0_2.korvaneFileMapping" / name, "bytes");
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), UnorderedElementsAre("below", "folder_0_2.korvaneFileMapping"));
  EXPECT_THAT(support::namesIn(folder() / "below"), ElementsAre(name));
  EXPECT_THAT(support::namesIn(folder() / "folder_0_2.korvaneFileMapping"), ElementsAre(name));
}

TEST_F(LeftoversTest, OfOtherProgramsAreNotLookedAt) {
  const std::string name = nameFor(support::endedProcessId());
  const std::filesystem::path other = scratch_.path() / "a" / platform::toUtf8(host(L"other.exe").tag());
  std::filesystem::create_directories(other);
  writeFile(other / name, "bytes");
  writeFile(scratch_.path() / "a" / name, "bytes");
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(support::namesIn(other), ElementsAre(name));
  EXPECT_TRUE(std::filesystem::exists(scratch_.path() / "a" / name));
}

TEST_F(LeftoversTest, StayWhileAnotherProcessOfTheProgramMayCleanUp) {
  auto first = std::make_unique<FileMappingDirHelper>(host());
  const std::string name = nameFor(support::endedProcessId());
  leave(name);
  {
    LogCapture log(ember_logger::trace);
    const FileMappingDirHelper second(host());
    EXPECT_THAT(log.take(), ElementsAre(trace("clear rubbish"), trace("not clear cache!")));
    EXPECT_THAT(left(), ElementsAre(name));
    EXPECT_EQ(second.getSuitableRootDirIndex(1), 0);  // it works all the same
  }
  const FileMappingDirHelper other(host(L"other.exe"));  // another program is not kept from it
  first.reset();
  const FileMappingDirHelper third(host());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, AreRemovedByOneOfManyThatStartTogether) {
  leave(nameFor(support::endedProcessId()));
  LogCapture log(ember_logger::trace);
  constexpr int kHelpers = 6;
  std::atomic<int> waiting = kHelpers;
  std::vector<std::unique_ptr<FileMappingDirHelper>> helpers(kHelpers);
  std::vector<std::thread> threads;
  for (auto& helper : helpers) {
    threads.emplace_back([&] {
      for (--waiting; waiting > 0;) {
        std::this_thread::yield();
      }
      helper = std::make_unique<FileMappingDirHelper>(host());
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  const auto lines = log.take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), trace("need to clear cache!")), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), trace("not clear cache!")), kHelpers - 1);
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, AreRemovedOnceByAHelper) {
  FileMappingDirHelper helper(host());
  leave("stray.korvaneFileMapping");
  LogCapture log(ember_logger::trace);
  helper.clearRubbish();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_THAT(left(), ElementsAre("stray.korvaneFileMapping"));
}

TEST_F(LeftoversTest, ThatAnotherProgramHoldsAreKept) {
  leave("stray.korvaneFileMapping");
  leave("stray_0_2.korvaneFileMapping");
  {
    const support::HeldFile held(folder() / "stray.korvaneFileMapping");
    const FileMappingDirHelper helper(host());
    EXPECT_THAT(left(), ElementsAre("stray.korvaneFileMapping"));
  }
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
}

// Says that one file is in use, as long as it is asked for.
class UsersOfOneFile final : public cache::FileUsers {
 public:
  static std::unique_ptr<const cache::FileUsers> find() { return std::make_unique<UsersOfOneFile>(); }

  bool use(const std::wstring& file) const override { return file.ends_with(L"/stray2.korvaneFileMapping"); }
};

TEST_F(LeftoversTest, ThatOtherProcessesUseAreKept) {
  leave("stray1.korvaneFileMapping");
  leave("stray2.korvaneFileMapping");
  LogCapture log(ember_logger::trace);
  {
    const FileMappingDirHelper helper(host(), UsersOfOneFile::find);
    EXPECT_THAT(left(), ElementsAre("stray2.korvaneFileMapping"));
  }
  const auto lines = log.take();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const auto& line) {
                            return line.text.ends_with("/stray2.korvaneFileMapping is being used by other process!");
                          }),
            1);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
}

TEST_F(LeftoversTest, StayIfTheirUsersCannotBeFound) {
  leave("stray1.korvaneFileMapping");
  LogCapture log(ember_logger::warning);
  const FileMappingDirHelper helper(
      host(), []() -> std::unique_ptr<const cache::FileUsers> { throw std::runtime_error("no idea"); });
  EXPECT_THAT(left(), ElementsAre("stray1.korvaneFileMapping"));
  EXPECT_EQ(log.take(), (support::LogLines{{3, "[FileMappingDirHelper::clearRubbish] ended early: no idea"}}));
}

TEST_F(LeftoversTest, InAllFoldersAreRemoved) {
  const ScratchFolder elsewhere(support::folderOnAnotherDisk());
  configureRoots({elsewhere.path().generic_string(), utf8Of(L"a")});
  const std::filesystem::path other = elsewhere.path() / platform::toUtf8(host().tag());
  std::filesystem::create_directory(other);
  const std::string name = nameFor(support::endedProcessId());
  leave(name);
  writeFile(other / name, "bytes");
  LogCapture log(ember_logger::trace);
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(left(), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_empty(other));
  const auto lines = log.take();
  ASSERT_THAT(lines, SizeIs(8));
  EXPECT_EQ(lines[5], trace("file:" + other.generic_string() + "/" + name + " is removed!"));
  EXPECT_EQ(lines[7], trace("file:" + folder().generic_string() + "/" + name + " is removed!"));
}

TEST_F(LeftoversTest, InFoldersOfAnyNameAreRemoved) {
  configureRoots({utf8Of(L"r\u00E4ume/\u56FE")});
  const std::filesystem::path named = scratch_.path() / u8"r\u00E4ume/\u56FE" / platform::toUtf8(host().tag());
  std::filesystem::create_directories(named);
  writeFile(named / "stray.korvaneFileMapping", "bytes");
  writeFile(named / u8"stray \u56FE.korvaneFileMapping", "bytes");
  writeFile(named / u8"\u56FE_0_\U0001F600.korvaneFileMapping", "bytes");
  LogCapture log(ember_logger::warning);
  const FileMappingDirHelper helper(host());
  EXPECT_TRUE(std::filesystem::is_empty(named));
  EXPECT_THAT(log.take(), IsEmpty());
}

// ---- What the clean-up tells

class CleanUpTraceTest : public LeftoversTest {
 protected:
  // What the clean-up tells of its one file.
  LogLines tracesOf(const Host& host) const {
    LogCapture log(ember_logger::trace);
    const FileMappingDirHelper helper(host);
    return log.take();
  }

  static std::vector<LogLine> around(std::initializer_list<std::string> ofTheFile) {
    std::vector<LogLine> lines{trace("clear rubbish"), trace("need to clear cache!"),
                               trace("isProcessesExisted begin ----------------!"),
                               trace("isProcessesExisted end ----------------!")};
    for (const std::string& text : ofTheFile) {
      lines.push_back(trace(text));
    }
    return lines;
  }

  std::string shown(const std::string& name) const { return folder().generic_string() + "/" + name; }
};

TEST_F(CleanUpTraceTest, OfNoFiles) { EXPECT_EQ(tracesOf(host()), around({})); }

TEST_F(CleanUpTraceTest, OfADeadProcess) {
  const std::uint32_t id = support::endedProcessId();
  leave(nameFor(id));
  EXPECT_EQ(tracesOf(host()), around({"pid:" + std::to_string(id) + " is dead ----------------!",
                                      "file:" + shown(nameFor(id)) + " is removed!"}));
}

TEST_F(CleanUpTraceTest, OfALiveProcess) {
  const Host own = ownHost();
  const std::filesystem::path ownFolder = scratch_.path() / "a" / platform::toUtf8(own.tag());
  std::filesystem::create_directories(ownFolder);
  const std::uint32_t id = platform::currentProcessId();
  writeFile(ownFolder / nameFor(id), "bytes");
  EXPECT_EQ(tracesOf(own), around({"pid:" + std::to_string(id) + " is alive ----------------!"}));
}

TEST_F(CleanUpTraceTest, OfAnInvalidName) {
  leave("stray.korvaneFileMapping");
  const auto lines = tracesOf(host());
  ASSERT_THAT(lines, SizeIs(6));
  EXPECT_EQ(lines[4].severity, ember_logger::trace);
  EXPECT_THAT(lines[4].text, testing::StartsWith("[FileMappingDirHelper::clearRubbish] pid:"));
  EXPECT_THAT(lines[4].text, testing::EndsWith(" invalid fileMapping path ----------------!"));
  EXPECT_EQ(lines[5], trace("file:" + shown("stray.korvaneFileMapping") + " is removed!"));
}

TEST_F(CleanUpTraceTest, OfAFileInUse) {
  leave("process_abc_3.korvaneFileMapping");
  const support::HeldFile held(folder() / "process_abc_3.korvaneFileMapping");
  EXPECT_EQ(tracesOf(host()),
            around({"pid:0 is dead ----------------!",
                    "file:" + shown("process_abc_3.korvaneFileMapping") + " is being used by other process!"}));
}

TEST_F(CleanUpTraceTest, OfALockFileThatCannotBeMade) {
  leave("stray.korvaneFileMapping");
  writeFile(scratch_.path() / "bin/KvTileImageFileMappingCaches", "in the way");
  const auto lines = tracesOf(host());
  ASSERT_THAT(lines, SizeIs(2));
  EXPECT_EQ(lines[0], trace("clear rubbish"));
  EXPECT_EQ(lines[1].severity, ember_logger::error);
  EXPECT_EQ(lines[1].text, "[FileMappingDirHelper::clearRubbish] createDirWithFilePath failed:" +
                               platform::toUtf8(host().cleanUpLockFile()) + "!");
  EXPECT_THAT(left(), ElementsAre("stray.korvaneFileMapping"));
}

TEST_F(CleanUpTraceTest, OfALockFileThatIsNoFile) {
  leave("stray.korvaneFileMapping");
  std::filesystem::create_directories(scratch_.path() / "bin/KvTileImageFileMappingCaches" /
                                      (platform::toUtf8(host().tag()) + ".filelock"));
  EXPECT_THAT(tracesOf(host()), ElementsAre(trace("clear rubbish"), trace("not clear cache!")));
  EXPECT_THAT(left(), ElementsAre("stray.korvaneFileMapping"));
}

TEST_F(CleanUpTraceTest, IsSilentAtTheUsualLevel) {
  leave("stray.korvaneFileMapping");
  LogCapture log;
  const FileMappingDirHelper helper(host());
  EXPECT_THAT(log.take(), IsEmpty());
}

}  // namespace
