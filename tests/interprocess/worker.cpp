#include "worker.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include "worker_system.h"

namespace interprocess {
namespace {

namespace fs = std::filesystem;

bool isBackingFile(const fs::path& path) { return path.extension() == kBackingFileExtension; }

std::string fileName(const Home& home, const std::string& name) {
  return name + '-' + home.uniqueName() + kProgramExtension;
}

// The system may hold on to a file for a moment after the end of the process that used it.
void removeSoon(const fs::path& path) {
  EXPECT_TRUE(eventually([&] {
    std::error_code error;
    fs::remove_all(path, error);
    return !error || (std::this_thread::sleep_for(std::chrono::milliseconds(10)), false);
  })) << path;
}

}  // namespace

Home::Home() : userData_(userDataFolder(scratch_.path())) {}

Home::~Home() {
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(dataFolder() / "caches", missing)) {
    if (entry.path().filename().string().find(uniqueName() + '_') != std::string::npos) {
      removeSoon(entry.path());
    }
  }
  removeSoon(folder());
}

Program::Program(const Home& home, const std::string& name, const std::string& subfolder)
    : defaultRoot_(home.dataFolder() / "caches"),
      path_(home.folder() / subfolder / fileName(home, name)),
      environment_(workerEnvironment(home.userData())) {
  fs::create_directories(path_.parent_path());
  fs::copy_file(testFolder() / (std::string("tile_worker") + kProgramExtension), path_);
}

std::vector<fs::path> Program::cacheFolders(const fs::path& root) const {
  std::vector<fs::path> folders;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(root, missing)) {
    if (entry.is_directory() && entry.path().filename().string().starts_with(path_.stem().string() + '_')) {
      folders.push_back(entry.path());
    }
  }
  return folders;
}

Names Program::backingFiles() const {
  Names names;
  for (const fs::path& folder : cacheFolders()) {
    for (const fs::path& path : backingFilesBelow(folder)) {
      names.push_back(path.filename().string());
    }
  }
  return together(std::move(names), {});
}

fs::path Program::leave(const std::string& name) const {
  const std::vector<fs::path> folders = cacheFolders();
  EXPECT_EQ(folders.size(), 1U);
  if (folders.empty()) {
    return {};
  }
  std::ofstream(folders[0] / name) << "left";
  return folders[0] / name;
}

Worker::Worker(const Program& program) : process_(program.path(), {}, program.environment()) {
  EXPECT_EQ(process_.readLine(), "ready");
}

std::string Worker::ask(const std::string& command) {
  tell(command);
  return answer();
}

std::string Worker::answer() {
  constexpr std::string_view kLog = "log ";
  while (const auto line = process_.readLine()) {
    if (!line->starts_with(kLog)) {
      return *line;
    }
    log_.push_back(line->substr(kLog.size()));
  }
  return "ended";
}

int Worker::logged(const std::string& text) const {
  return static_cast<int>(std::count_if(log_.begin(), log_.end(),
                                        [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

bool Worker::loggedError(const std::vector<std::string>& texts) const {
  return std::any_of(log_.begin(), log_.end(), [&](const std::string& line) {
    return line.starts_with("4 ") && std::all_of(texts.begin(), texts.end(), [&](const std::string& text) {
             return line.find(text) != std::string::npos;
           });
  });
}

std::string Worker::log(int severity) const {
  std::string text;
  for (const std::string& line : log_) {
    if (line[0] - '0' >= severity) {
      text += line + '\n';
    }
  }
  return text;
}

int Worker::end() {
  process_.closeInput();
  return process_.wait();
}

SharedImages::~SharedImages() {
  std::error_code ignored;
  fs::remove_all(folder_ / "json" / prefix_, ignored);
  fs::remove_all(folder_ / "lockfiles" / prefix_, ignored);
}

Names SharedImages::files() const {
  Names names;
  for (const fs::path& folder : {folder_ / "json" / prefix_, folder_ / "lockfiles" / prefix_}) {
    std::error_code missing;
    for (const auto& entry : fs::recursive_directory_iterator(folder, missing)) {
      if (entry.is_regular_file()) {
        names.push_back(entry.path().filename().string());
      }
    }
  }
  return together(std::move(names), {});
}

std::unique_ptr<Worker> cleaningWorker(const Program& program) {
  std::unique_ptr<Worker> worker;
  EXPECT_TRUE(eventually([&] {
    worker = std::make_unique<Worker>(program);
    EXPECT_EQ(worker->ask(std::string("make cleaning") + kInMemory), "made");
    return worker->logged("[FileMappingDirHelper::clearRubbish] need to clear cache!") == 1 &&
           worker->logged("[TileImageInterprocessRubbishCleaner::clearRubbish] need to clear cache!") == 1;
  }));
  return worker;
}

Names backingFileNames(std::uint32_t processId, unsigned first, unsigned count) {
  Names names;
  for (unsigned number = first; number < first + count; ++number) {
    names.push_back("process_" + std::to_string(processId) + '_' + std::to_string(number) + kBackingFileExtension);
  }
  return together(std::move(names), {});
}

Names together(Names a, const Names& b) {
  a.insert(a.end(), b.begin(), b.end());
  std::sort(a.begin(), a.end());
  return a;
}

Names namesIn(const fs::path& folder) {
  Names names;
  std::error_code missing;
  for (const auto& entry : fs::directory_iterator(folder, missing)) {
    names.push_back(entry.path().filename().string());
  }
  return together(std::move(names), {});
}

std::vector<fs::path> backingFilesBelow(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (isBackingFile(entry->path())) {
      files.push_back(entry->path());
    }
  }
  return files;
}

}  // namespace interprocess
