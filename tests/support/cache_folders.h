// A program of a test's own, with its configuration and its cache folders.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cache/host.h"
#include "platform/paths.h"
#include "platform/utf8.h"
#include "support/scratch_folder.h"
#include "support/whole_file.h"

namespace support {

// The file name of the running test program.
inline std::wstring ownProgram() {
  const std::wstring path = platform::executablePath();
  return path.substr(path.rfind(L'/') + 1);
}

// The program is scratch/bin/viewer.exe, the user's data folder scratch/data/.
class CacheFoldersTest : public testing::Test {
 protected:
  static constexpr const wchar_t* kConfigurationFile = L"data/Korvane/KvTileImage/KvTileImage_FileMapingConfig.json";

  void SetUp() override { std::filesystem::create_directory(scratch_.path() / "bin"); }

  cache::Host host(const std::wstring& program = L"viewer.exe") const {
    return {scratch_.wide() + L"bin/" + program, scratch_.wide() + L"data/"};
  }

  std::filesystem::path configurationFile() const { return scratch_.path() / kConfigurationFile; }

  void configure(const std::string& text) const {
    std::filesystem::create_directories(configurationFile().parent_path());
    writeFile(configurationFile(), text);
  }

  void configureRoots(const std::vector<std::string>& roots) const {
    std::string list;
    for (const std::string& root : roots) {
      list += (list.empty() ? "\"" : ",\"") + root + "\"";
    }
    configure("{\"desc\":{\"rootDirList\":[" + list + "]}}");
  }

  // A path in the scratch folder, as JSON and messages show it.
  std::string utf8Of(const std::wstring& path) const { return platform::toUtf8(scratch_.wide() + path); }

  // The program's cache folder in a root in the scratch folder.
  std::wstring cacheFolder(const std::wstring& root) const {
    return scratch_.wide() + root + L"/" + host().tag() + L"/";
  }

  // The only one if nothing is configured: the other default root is on the same disk.
  std::wstring defaultFolder() const { return cacheFolder(L"data/Korvane/KvTileImage/caches"); }

  ScratchFolder scratch_;
};

}  // namespace support
