// What both systems offer: texts, files, folders, processes, disks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>

#include "platform/files.h"
#include "platform/paths.h"
#include "platform/processes.h"
#include "platform/utf8.h"
#include "platform/volumes.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

using platform::fromUtf8;
using platform::shownUtf8;
using platform::toUtf8;
using support::contentsOf;
using support::HeldFile;
using support::ScratchFolder;
using support::writeFile;

// ---- Texts

TEST(Utf8Test, ConvertsBothWays) {
  const struct {
    std::wstring wide;
    std::string narrow;
  } table[] = {{L"", ""},
               {L"C:/a b", "C:/a b"},
               {L"\u007F\u0080\u07FF", "\x7F\xC2\x80\xDF\xBF"},
               {L"\u0800\u56FE\uD7FF\uE000\uFFFD", "\xE0\xA0\x80\xE5\x9B\xBE\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD"},
               {L"\U00010000\U0001F600\U0010FFFF", "\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"},
               {std::wstring(L"a\0b", 3), std::string("a\0b", 3)}};
  for (const auto& row : table) {
    EXPECT_EQ(toUtf8(row.wide), row.narrow);
    EXPECT_EQ(fromUtf8(row.narrow), row.wide) << row.narrow;
    EXPECT_EQ(shownUtf8(row.wide), row.narrow);
  }
}

TEST(Utf8Test, RefusesWhatIsNotWellFormed) {
  const std::string table[] = {"\x80",              // a continuation without a start
                               "a\xFF",             // never a part of UTF-8
                               "\xC3",              // cut off
                               "\xE5\x9B",          //
                               "\xF0\x9F\x98",      //
                               "\xC3(",             // continued by something else
                               "\xC0\xAF",          // longer than it need be
                               "\xE0\x80\xAF",      //
                               "\xF0\x80\x80\xAF",  //
                               "\xED\xA0\x80",      // a surrogate
                               "\xED\xBF\xBF",      //
                               "\xF4\x90\x80\x80",  // beyond the last code point
                               "\xF8\x88\x80\x80\x80"};
  for (const std::string& text : table) {
    EXPECT_THROW(fromUtf8(text), std::range_error) << testing::PrintToString(text);
  }
}

TEST(Utf8Test, RefusesHalvesOfCharacters) {
  for (const std::wstring& text : {std::wstring(L"a\xD83D"), std::wstring(L"\xDE00z"), std::wstring(L"\xDE00\xD83D")}) {
    EXPECT_THROW(toUtf8(text), std::range_error);
  }
  EXPECT_EQ(shownUtf8(L"a\xDE00z"), "az");
}

// ---- Files

TEST(FilesTest, CreatesFilesOfZeroBytes) {
  const ScratchFolder scratch;
  for (const std::uint64_t bytes : {std::uint64_t{1}, std::uint64_t{100000}, std::uint64_t{65536}}) {
    const std::wstring name = std::to_wstring(bytes);
    ASSERT_FALSE(platform::createZeroFile(platform::narrowPath(scratch.wide() + name), bytes));
    EXPECT_EQ(contentsOf(scratch.path() / name), std::string(bytes, '\0'));
    EXPECT_FALSE(support::isOpen(scratch.path() / name));
  }
}

TEST(FilesTest, CreatesNoFileOverAnother) {
  const ScratchFolder scratch;
  writeFile(scratch.path() / "zeros", "another's");
  const auto error = platform::createZeroFile(platform::narrowPath(scratch.wide() + L"zeros"), 10);
  EXPECT_EQ(error, std::errc::file_exists);
  EXPECT_EQ(contentsOf(scratch.path() / "zeros"), "another's");
}

TEST(FilesTest, LeavesNothingOfAFileThatCannotBeCreated) {
  const ScratchFolder scratch;
  EXPECT_TRUE(platform::createZeroFile(platform::narrowPath(scratch.wide() + L"missing/zeros"), 10));
  EXPECT_TRUE(platform::createZeroFile("", 10));
  EXPECT_TRUE(platform::createZeroFile(platform::narrowPath(scratch.wide()), 10));
  EXPECT_TRUE(platform::createZeroFile(platform::narrowPath(scratch.wide() + L"large"),
                                       std::numeric_limits<std::uint64_t>::max()));
  EXPECT_TRUE(std::filesystem::is_empty(scratch.path()));
}

TEST(FilesTest, RemovesFiles) {
  const ScratchFolder scratch;
  const std::string name = platform::narrowPath(scratch.wide() + L"file");
  EXPECT_FALSE(platform::removeFile(name));
  writeFile(scratch.path() / "file", "text");
  EXPECT_TRUE(platform::removeFile(name));
  EXPECT_FALSE(std::filesystem::exists(scratch.path() / "file"));
}

TEST(FilesTest, RemovesAFileOnceNoOneHasItInUse) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"file";
  EXPECT_FALSE(platform::removeUnlessInUse(name));
  writeFile(scratch.path() / "file", "text");
  {
    const HeldFile held(scratch.path() / "file");
    EXPECT_FALSE(platform::removeUnlessInUse(name));
  }
  EXPECT_EQ(contentsOf(scratch.path() / "file"), "text");
  EXPECT_TRUE(platform::removeUnlessInUse(name));
  EXPECT_FALSE(std::filesystem::exists(scratch.path() / "file"));
  std::filesystem::create_directory(scratch.path() / "folder");
  EXPECT_FALSE(platform::removeUnlessInUse(scratch.wide() + L"folder"));
  EXPECT_TRUE(std::filesystem::exists(scratch.path() / "folder"));
}

TEST(FilesTest, LetsOneHolderOfALockFileIn) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"lock";
  writeFile(scratch.path() / "lock", "left over");
  platform::Stream holder = platform::openLockFile(name);
  ASSERT_NE(holder, nullptr);
  EXPECT_EQ(platform::openLockFile(name), nullptr);
  EXPECT_FALSE(platform::removeUnlessInUse(name));
  holder.reset();
  EXPECT_EQ(contentsOf(scratch.path() / "lock"), "");
  EXPECT_NE(platform::openLockFile(name), nullptr);
  EXPECT_EQ(platform::openLockFile(scratch.wide() + L"missing/lock"), nullptr);
}

TEST(FilesTest, KeepsReadersAndWritersFromAFileThatDeniesThem) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"text";
  platform::Stream holder = platform::openLockFile(name);
  ASSERT_NE(holder, nullptr);
  EXPECT_EQ(platform::openTextForReading(name), nullptr);
  EXPECT_FALSE(platform::writeText(name, "not written"));
  holder.reset();
  EXPECT_EQ(contentsOf(scratch.path() / "text"), "");
  const platform::Stream reader = platform::openTextForReading(name);
  EXPECT_NE(reader, nullptr);
  EXPECT_NE(platform::openTextForReading(name), nullptr);
}

TEST(FilesTest, WritesWholeTexts) {
  const ScratchFolder scratch;
  const std::wstring name = scratch.wide() + L"text";
  EXPECT_TRUE(platform::writeText(name, "a longer text"));
  EXPECT_EQ(contentsOf(scratch.path() / "text"), "a longer text");
  EXPECT_TRUE(platform::writeText(name, "short"));
  EXPECT_EQ(contentsOf(scratch.path() / "text"), "short");
  EXPECT_TRUE(platform::writeText(name, ""));
  EXPECT_EQ(contentsOf(scratch.path() / "text"), "");
  EXPECT_FALSE(platform::writeText(scratch.wide() + L"missing/text", "text"));
  std::filesystem::create_directory(scratch.path() / "folder");
  EXPECT_FALSE(platform::writeText(scratch.wide() + L"folder", "text"));
  const auto entries = std::distance(std::filesystem::directory_iterator(scratch.path()), {});
  EXPECT_EQ(entries, 2) << "text and folder";
}

TEST(FilesTest, MakesChainsOfFolders) {
  const ScratchFolder scratch;
  EXPECT_FALSE(platform::createFolders(scratch.wide() + L"a/\u00E4/c"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() / u8"a/\u00E4/c"));
  EXPECT_FALSE(platform::createFolders(scratch.wide() + L"a/\u00E4/c/"));
  EXPECT_FALSE(platform::createFolders(scratch.wide() + L"a/d/"));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.path() / "a/d"));
}

TEST(FilesTest, MakesNoFolderWhereAFileIs) {
  const ScratchFolder scratch;
  writeFile(scratch.path() / "file", "kept");
  for (const wchar_t* folder : {L"file", L"file/", L"file/below", L"file/below/"}) {
    EXPECT_TRUE(platform::createFolders(scratch.wide() + folder)) << folder;
  }
  EXPECT_EQ(contentsOf(scratch.path() / "file"), "kept");
}

// ---- Processes, programs, disks

TEST(ProcessesTest, KnowsThisProcessByItsProgram) {
  const std::wstring path = platform::executablePath();
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  EXPECT_EQ(path.find(L'\\'), std::wstring::npos);
  const std::wstring name = path.substr(path.rfind(L'/') + 1);
  const std::wstring stem = std::filesystem::path(name).stem().wstring();
  EXPECT_EQ(stem, L"unit_tests");
  const auto own = static_cast<std::int32_t>(platform::currentProcessId());
  EXPECT_THAT(platform::runningProcesses({own}, name), testing::ElementsAre(own));
  std::wstring otherCase = name;
  std::replace(otherCase.begin(), otherCase.end(), L't', L'T');
  EXPECT_THAT(platform::runningProcesses({own}, otherCase), testing::ElementsAre(own));
  EXPECT_THAT(platform::runningProcesses({own}, name + L".exe"), testing::ElementsAre(own));  // named without it
  EXPECT_TRUE(platform::runningProcesses({own}, L"other_" + name).empty());
  EXPECT_TRUE(platform::runningProcesses({}, name).empty());
}

TEST(ProcessesTest, PicksThoseThatRun) {
  const std::wstring path = platform::executablePath();
  const auto own = static_cast<std::int32_t>(platform::currentProcessId());
  const auto ended = static_cast<std::int32_t>(support::endedProcessId());
  EXPECT_NE(own, ended);
  EXPECT_THAT(platform::runningProcesses({0, -1, own, ended}, path.substr(path.rfind(L'/') + 1)),
              testing::ElementsAre(own));
}

TEST(PathsTest, EndFoldersWithASlash) {
  const std::wstring folder = platform::localDataFolder();
  EXPECT_TRUE(folder.ends_with(L'/'));
  EXPECT_EQ(folder.find(L'\\'), std::wstring::npos);
}

TEST(VolumesTest, KnowsTheRoomOnTheDisksThatTestsUse) {
  const ScratchFolder here;
  EXPECT_GT(platform::fixedDriveFreeBytes(here.wide()), 0U);
  EXPECT_GT(platform::freeBytes(here.wide()).value_or(0), 0U);
  const ScratchFolder elsewhere(support::folderOnAnotherDisk());
  EXPECT_NE(platform::driveKey(here.wide()), platform::driveKey(elsewhere.wide()));
  EXPECT_EQ(platform::driveKey(here.wide()), platform::driveKey(here.wide() + L"not/made/yet/"));
}

}  // namespace
